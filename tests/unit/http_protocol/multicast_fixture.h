#pragma once

#include <netinet/in.h>
#include <unistd.h>

#include "http_server_fixture.h"
#include "kel/checksum.h"
#include "kel/format.h"
#include "kelcore/multicast/sender.h"

/// A device that receives by multicast on the loopback interface, and a sender to it.
class MulticastFixture : public RunningHttpServer {
  protected:
    static constexpr std::uint32_t kBlock = 1024;
    static constexpr std::uint16_t kPort = 15008;
    static constexpr const char* kUrl = "/Store/a b";

    void SetUp() override {
        RunningHttpServer::SetUp();
        Subscribe("HttpProtocolCallbackPut", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            events_.push_back(*container);
            return 0U;
        });
        ASSERT_TRUE(socket_.Bind(*IpAddress::Parse("127.0.0.1"), 0));
        ASSERT_TRUE(socket_.SendThrough(*IpAddress::Parse("127.0.0.1")));
        ASSERT_TRUE(socket_.Connect(*IpAddress::Parse(group_), kPort, 1));
    }

    /// The arguments with which the file store has `content` received as "in/NAME".
    KelContainer Order(const std::string& content, const std::string& name = "file") const {
        return Values({"MulticastAddress=" + group_, KelFormat("MulticastPort=%u", unsigned{kPort}),
                       KelFormat("MulticastBlockSize=%u", kBlock),
                       "FileSize=" + std::to_string(content.size()), KelString("FileURL=") + kUrl,
                       "LocalPath=" + File("in/" + name), "FileChecksum=" + TextMd5(content)});
    }
    static unsigned int Listen(const KelContainer& order) {
        return Call("HttpProtocolMulticastStartListen", KelContainer(order));
    }
    KelContainer AskState() const {
        KelContainer container =
            Values({"MulticastAddress=" + group_, KelFormat("MulticastPort=%u", unsigned{kPort}),
                    "MulticastDifferencialRetry=true"});
        EXPECT_EQ(Call("HttpProtocolMulticastIsCompleted", container), 0U);
        return container;
    }
    /// The state as "completed", "restart", "failed", or "" with the missing blocks behind it: " 3-5 9".
    std::string State() const {
        const KelContainer answer = AskState();
        std::string text = answer.GetBool("IsCompleted") ? "completed" : "";
        if (answer.GetBool("RestartNeeded")) text += "restart";
        if (answer.GetBool("CommunicationFailed")) text += "failed";
        for (int i = 0; answer.Has(std::to_string(i)); ++i)
            text += " " + answer.GetString(std::to_string(i));
        return text;
    }
    bool Reaches(const std::string& state) {
        return Eventually([&] { return State() == state; });
    }

    void SendFile(const std::string& content, const std::set<std::uint32_t>& blocks = {}) {
        WriteFile("source", content);
        MulticastSender sender;
        ASSERT_TRUE(sender.Open({group_, kPort, 1, "secret", {"127.0.0.1"}}));
        HttpFileMessage message;
        message.SetResourcePath(kUrl);
        message.SetBodyFile(File("source"));
        ASSERT_EQ(sender.Send(message, kBlock, blocks, [](std::size_t) { return true; }), 0U);
    }
    void SendRaw(const std::string& datagram) {
        ASSERT_EQ(::send(socket_.Get(), datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }
    KelVector<KelContainer> Events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }

    /// Of this process alone: other runs of the tests may share the loopback interface.
    const KelString group_ = KelFormat("239.78.%u.%u", (::getpid() >> 8) & 255U, ::getpid() & 255U);

  private:
    UdpSocket socket_;
    mutable std::mutex mutex_;
    KelVector<KelContainer> events_;
};

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kel/format.h"
#include "kel/temp_folder.h"
#include "kelcore/multicast/sender.h"

namespace {

constexpr std::uint16_t kPort = 15007;
/// Of this process alone: other runs of the tests may share the loopback interface.
const KelString kGroup = KelFormat("239.77.%u.%u", (::getpid() >> 8) & 255U, ::getpid() & 255U);
const KelString kPath = "/Store/a b/file";

/// What arrives at a member of the group until `count` datagrams are there.
class Member {
  public:
    Member() {
        const auto group = IpAddress::Parse(kGroup);
        EXPECT_TRUE(socket_.SetOption(SOL_SOCKET, SO_REUSEADDR, 1) && socket_.Bind(*group, kPort) &&
                    socket_.Join(*group, *IpAddress::Parse("127.0.0.1")));
        socket_.GrowReceiveBuffer(4 << 20);
        const timeval patience{5, 0};
        ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    std::vector<std::string> Take(std::size_t count) {
        std::vector<std::string> datagrams;
        std::string buffer(65536, '\0');
        while (datagrams.size() < count) {
            const ssize_t got = ::recv(socket_.Get(), buffer.data(), buffer.size(), 0);
            if (got < 0) break;
            datagrams.push_back(buffer.substr(0, static_cast<std::size_t>(got)));
        }
        return datagrams;
    }
    bool IsEmpty() {
        char byte = 0;
        return ::recv(socket_.Get(), &byte, 1, MSG_DONTWAIT) < 0;
    }

  private:
    UdpSocket socket_;
};

struct Case {
    std::size_t fileSize;
    std::uint32_t blockSize;
    std::set<std::uint32_t> blocks;
    std::set<std::uint32_t> sent;
    std::set<KelString> from = {"127.0.0.1"};
};

class MulticastSenderTest : public ::testing::TestWithParam<Case> {};

TEST_P(MulticastSenderTest, SendsEachBlockOnceFromEachAddress) {
    const auto& [fileSize, blockSize, blocks, sent, from] = GetParam();
    TempFolder folder;
    std::string content(fileSize, '\0');
    for (std::size_t i = 0; i < fileSize; ++i)
        content[i] = static_cast<char>((i * 131 + (i >> 8) * 7) & 0xFF);
    TempFolder::Write(folder / "file", content);
    Member member;
    MulticastSender sender;
    ASSERT_TRUE(sender.Open({kGroup, kPort, 1, "secret", from}));
    HttpFileMessage message;
    message.SetResourcePath(kPath);
    message.SetBodyFile(folder / "file");
    std::size_t announced = 0;
    EXPECT_EQ(sender.Send(message, blockSize, blocks,
                          [&](std::size_t bytes) {
                              EXPECT_LE(bytes, 64U << 10);
                              announced += bytes;
                              return true;
                          }),
              0U);
    const MulticastKey key("secret", {kGroup, kPort, kPath, fileSize});
    std::map<std::uint32_t, std::size_t> arrived, expected;
    for (const std::uint32_t block : sent)
        expected[block] = from.size();
    std::size_t bytes = 0;
    for (const std::string& datagram : member.Take(sent.size() * from.size())) {
        const auto parsed = ParseMulticastDatagram(datagram);
        ASSERT_TRUE(parsed) << datagram.substr(0, 200);
        EXPECT_EQ(parsed->path, "/Store/a%20b/file");
        EXPECT_EQ(parsed->fileSize, fileSize);
        EXPECT_EQ(parsed->body, content.substr(parsed->offset, blockSize));
        const MulticastKey::Code code = key.CodeOf(parsed->offset, parsed->body);
        EXPECT_EQ(parsed->code, std::string_view(code.data(), code.size()));
        ++arrived[static_cast<std::uint32_t>(parsed->offset / blockSize)];
        bytes += datagram.size() + 28;
    }
    EXPECT_EQ(arrived, expected);
    EXPECT_EQ(announced * from.size(), bytes);
    EXPECT_TRUE(member.IsEmpty());
}

std::set<std::uint32_t> Range(std::uint32_t count) {
    std::set<std::uint32_t> numbers;
    for (std::uint32_t i = 0; i < count; ++i)
        numbers.insert(i);
    return numbers;
}

INSTANTIATE_TEST_SUITE_P(Files, MulticastSenderTest,
                         ::testing::Values(Case{0, 1024, {}, {}}, Case{1, 1024, {}, {0}},
                                           Case{200 * 1024, 1024, {}, Range(200)},
                                           Case{200 * 1024 + 1, 1024, {}, Range(201)},
                                           Case{300'000, 64000, {}, Range(5)},
                                           Case{9000, 1024, {}, Range(9), {"127.0.0.1", "127.0.3.1"}},
                                           Case{300'000, 9000, {3, 4, 5, 9, 33, 34, 999}, {3, 4, 5, 9, 33}}));

TEST(MulticastSender, StopsWhenAskedAndReportsWhatItCannotDo) {
    TempFolder folder;
    TempFolder::Write(folder / "file", std::string(1 << 20, 'x'));
    HttpFileMessage message;
    message.SetResourcePath(kPath);
    MulticastSender sender;
    EXPECT_FALSE(sender.Open({kGroup, kPort, 1, "secret", {"127.0.0.1", "203.0.113.7"}}))
        << "not an address of this device";
    EXPECT_FALSE(sender.Open({"127.0.0.1", kPort, 1, "secret", {"127.0.0.1"}})) << "not a group";
    ASSERT_TRUE(sender.Open({kGroup, kPort, 1, "secret", {"127.0.0.1"}}));
    int bursts = 0;
    const auto stopAtThird = [&bursts](std::size_t) { return ++bursts < 3; };
    message.SetBodyFile(folder / "missing");
    EXPECT_EQ(sender.Send(message, 1024, {}, stopAtThird), 5U);
    EXPECT_EQ(bursts, 0);
    message.SetBodyFile(folder / "file");
    EXPECT_EQ(sender.Send(message, 1024, {}, stopAtThird), 5U);
    EXPECT_EQ(bursts, 3);
}

}  // namespace

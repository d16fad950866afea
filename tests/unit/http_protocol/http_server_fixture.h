#pragma once

#include <netinet/in.h>
#include <unistd.h>
#include <csignal>
#include <optional>

#include "http_test_client.h"
#include "kel/unique_fd.h"
#include "module_fixture.h"
#include "modules/http_protocol/http_protocol.h"

/// The module, running on a free loopback port with the aliases "Files" and, taking uploads, "Files/in".
class HttpServerFixture : public ModuleFixture {
  protected:
    HttpServerFixture() {
        std::signal(SIGPIPE, SIG_IGN);  // as the agent does: clients leave in the middle of an answer
        Configure("127.0.0.1");
    }
    void SetUp() override { std::filesystem::create_directories(root_ / "files/in"); }

    void Start(const std::string& settings = {}) {
        WriteIni("HttpProtocol", "[HttpProtocol]\n" + settings + "\n[Aliases]\nWritable=Files/in\n");
        module_.emplace();
        AddAlias("Files", root_ / "files");
        AddAlias("Files/in", File("in"));
    }
    void Stop() { module_->Cleanup(); }
    static void AddAlias(const std::string& name, const std::string& path) {
        EXPECT_EQ(Call("HttpProtocolAddAlias", Values({"AliasName=" + name, "AliasPath=" + path})), 0U);
    }
    std::uint16_t Port() { return (*module_)->Port(); }
    /// Below those that the system gives to outgoing connections.
    static std::uint16_t FreePort() {
        for (std::uint16_t port = 20000 + static_cast<std::uint16_t>(::getpid() % 10000);; ++port) {
            const UniqueFd probe(::socket(AF_INET, SOCK_STREAM, 0));
            sockaddr_in place{};
            place.sin_family = AF_INET;
            place.sin_port = htons(port);
            place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::bind(probe.Get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0)
                return port;
        }
    }
    HttpTestClient Connect() { return HttpTestClient(Port()); }

    /// The path of what "/Files/NAME" serves.
    std::string File(const std::string& name) const { return root_ / ("files/" + name); }
    void WriteFile(const std::string& name, const std::string& content) const {
        TempFolder::Write(File(name), content);
    }
    std::string ReadFile(const std::string& name) const { return TempFolder::Read(File(name)); }
    std::ptrdiff_t CountFilesIn(const std::string& folder) const {
        return std::distance(std::filesystem::directory_iterator(File(folder)), {});
    }

    std::optional<ActiveModule<HttpProtocol>> module_;
};

/// The same with the module started already.
class RunningHttpServer : public HttpServerFixture {
  protected:
    void SetUp() override {
        HttpServerFixture::SetUp();
        Start();
    }
};

/// Bytes whose every position shows an offset that is wrong.
inline std::string PatternBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + (i >> 8) * 7) & 0xFF);
    return bytes;
}

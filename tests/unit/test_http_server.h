#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kel/container.h"
#include "raw_connection.h"

/// An HTTP server on a free port of 127.0.1.1 whose answers a test scripts. Connections stay open and have a
/// thread each; the script runs on these threads, one call at a time.
class TestHttpServer {
  public:
    struct Request {
        std::string method;
        std::string target;  ///< as in the request line
        std::string head;    ///< the request line and the headers
        std::string body;
        int connection = 0;  ///< counts accepted connections from 1

        /// The value of a header, empty when absent.
        std::string Header(const std::string& name) const;
        KelContainer Arguments() const;  ///< of an action call; throws when the body is no container
    };
    /// The connection stays open behind an answer that is sent whole.
    struct Answer {
        unsigned int status = 200;  ///< 0: `body` is all that is sent, then the connection is closed
        std::string headers = {};   ///< besides Content-Length, each ending in CRLF
        std::string body = {};
        std::size_t cutAfter = SIZE_MAX;  ///< bytes of the body that are sent before the connection is closed
        bool stalls = false;              ///< stays open behind what is sent, but answers no further request
    };
    using Script = std::function<Answer(const Request&)>;
    enum class Access {
        Digest,  ///< requests without credentials are challenged, and neither scripted nor remembered
        Open
    };

    explicit TestHttpServer(Script script, Access access = Access::Digest);
    ~TestHttpServer();
    TestHttpServer(const TestHttpServer&) = delete;
    TestHttpServer& operator=(const TestHttpServer&) = delete;

    static constexpr const char* kAddress = "127.0.1.1";
    std::uint16_t Port() const { return port_; }
    std::string HostAndPort() const { return std::string(kAddress) + ":" + std::to_string(port_); }
    std::vector<Request> Requests() const;

    /// The answer to an action call.
    static Answer ActionResult(unsigned int result, const KelContainer& values = {});
    /// Gives every action call this result.
    static Script ActionScript(unsigned int result, const KelContainer& values = {});
    /// Serves `content` at any path, with Range: bytes=N-.
    static Script FileScript(std::string content);

  private:
    void Accept();
    void Serve(RawConnection& connection, int number);
    Answer RunScript(const Request& request);
    bool TakeRequest(RawConnection& connection, Request& request) const;
    bool IsChallenged(const Request& request) const;

    Script script_;
    const Access access_;
    UniqueFd listener_;
    std::uint16_t port_ = 0;
    std::mutex scriptMutex_;    ///< one call of the script at a time
    mutable std::mutex mutex_;  ///< requests_
    std::vector<Request> requests_;
    std::list<RawConnection> connections_;  ///< the accepting thread's own until it has ended, as are the
    std::vector<std::jthread> threads_;     ///< threads that serve them
    std::thread acceptor_;
};

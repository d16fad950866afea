#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kel/unique_fd.h"

/// A request as it came over the wire.
struct SeenRequest {
    std::string method;
    std::string target;                          ///< as in the request line
    std::map<std::string, std::string> headers;  ///< names in lower case
    std::string body;
    int connection = 0;  ///< counts accepted connections from 1

    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

/// What to answer: the exact bytes, then whether the connection closes.
struct ScriptedAnswer {
    std::string bytes;
    bool closeAfter = false;
    bool holdAfter =
        false;  ///< sends no more, but keeps the connection open until the client or the test ends
};

/// An HTTP server on 127.0.0.1 whose answers a test writes byte by byte. The script runs on the server's
/// threads, one per connection, one call at a time.
class TestHttpServer {
  public:
    using Script = std::function<ScriptedAnswer(const SeenRequest&)>;

    explicit TestHttpServer(Script script);
    ~TestHttpServer();

    std::uint16_t Port() const { return port_; }
    std::vector<SeenRequest> Seen();

  private:
    void Accept();
    void Serve(UniqueFd fd, int connection);
    bool ReadRequest(int fd, std::string& buffer, SeenRequest& request);

    Script script_;
    UniqueFd listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;  ///< guards seen_, and the script's run
    std::vector<SeenRequest> seen_;
    std::vector<std::thread> threads_;  ///< of connections; the accepting thread's own until it has ended
    std::thread acceptor_;
};

/// `count` bytes of a pattern that tells positions apart, from `offset` on.
std::string Pattern(std::uint64_t count, std::uint64_t offset = 0);

/// An answer with Content-Length and the further `headers` (each ending in CRLF).
std::string AnswerText(const std::string& status, const std::string& headers, const std::string& body);

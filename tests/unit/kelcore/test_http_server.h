#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <list>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kel/text.h"
#include "kel/unique_fd.h"

/// A request as it came over the wire.
struct SeenRequest {
    std::string method;
    std::string target;  ///< as in the request line
    std::string head;    ///< the request line and the headers
    std::string body;
    int connection = 0;  ///< counts accepted connections from 1

    std::string Header(const std::string& name) const {
        const std::regex line("\r\n" + name + ": *([^\r]*)", std::regex::icase);
        std::smatch found;
        return std::regex_search(head, found, line) ? found.str(1) : "";
    }
};

/// The exact bytes to send, and what becomes of the connection then.
struct ScriptedAnswer {
    std::string bytes;
    enum { KeepOpen, Close, Stall } then = KeepOpen;  ///< Stall: open, but no further request is answered
};

/// An HTTP server on 127.0.0.1 whose answers a test writes byte by byte. The script runs on the server's
/// threads, one per connection, one call at a time.
class TestHttpServer {
  public:
    using Script = std::function<ScriptedAnswer(const SeenRequest&)>;

    explicit TestHttpServer(Script script)
        : script_(std::move(script)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* const bound = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_.Get(), bound, length) != 0 || listen(listener_.Get(), 64) != 0 ||
            getsockname(listener_.Get(), bound, &length) != 0)
            throw std::runtime_error("the test server cannot listen");
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { Accept(); });
    }
    ~TestHttpServer() {
        shutdown(listener_.Get(), SHUT_RDWR);  // ends the waits of the threads
        acceptor_.join();
        for (const UniqueFd& fd : connections_)
            shutdown(fd.Get(), SHUT_RDWR);
        threads_.clear();  // joins
    }

    std::uint16_t Port() const { return port_; }
    std::vector<SeenRequest> Seen() {
        const std::lock_guard lock(mutex_);
        return seen_;
    }

  private:
    void Accept() {
        for (int connection = 1;; ++connection) {
            UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) return;
            connections_.push_back(std::move(fd));
            threads_.emplace_back(
                [this, connection, served = connections_.back().Get()] { Serve(served, connection); });
        }
    }

    void Serve(int fd, int connection) {
        std::string buffer;
        SeenRequest request;
        request.connection = connection;
        while (Take(fd, buffer, request)) {
            ScriptedAnswer answer;
            {
                const std::lock_guard lock(mutex_);
                seen_.push_back(request);
                answer = script_(request);
            }
            SendAll(fd, answer.bytes);
            while (answer.then == ScriptedAnswer::Stall && Receive(fd, buffer)) {
            }
            if (answer.then != ScriptedAnswer::KeepOpen) break;
        }
        shutdown(fd, SHUT_RDWR);
    }

    static void SendAll(int fd, const std::string& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return;
            sent += static_cast<std::size_t>(count);
        }
    }

    /// Appends what comes; false at the end of the connection.
    static bool Receive(int fd, std::string& buffer) {
        char piece[65536];
        const ssize_t count = recv(fd, piece, sizeof(piece), 0);
        if (count > 0) buffer.append(piece, static_cast<std::size_t>(count));
        return count > 0;
    }

    /// Takes a request off `buffer`, which is what came in before; false when the connection ends first.
    static bool Take(int fd, std::string& buffer, SeenRequest& request) {
        std::size_t headEnd;
        while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (!Receive(fd, buffer)) return false;
        }
        request.head = buffer.substr(0, headEnd + 2);
        buffer.erase(0, headEnd + 4);
        std::istringstream(request.head) >> request.method >> request.target;
        if (!request.Header("expect").empty()) SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
        const std::uint64_t length = ParseUint64(request.Header("content-length")).value_or(0);
        while (buffer.size() < length) {
            if (!Receive(fd, buffer)) return false;
        }
        request.body = buffer.substr(0, length);
        buffer.erase(0, length);
        return true;
    }

    Script script_;
    UniqueFd listener_;
    std::uint16_t port_ = 0;
    std::mutex mutex_;  ///< guards seen_, and the script's run
    std::vector<SeenRequest> seen_;
    std::list<UniqueFd> connections_;    ///< the accepting thread's own until it has ended, as are the
    std::vector<std::jthread> threads_;  ///< threads that serve them
    std::thread acceptor_;
};

/// An answer with Content-Length and the further `headers` (each ending in CRLF).
inline ScriptedAnswer Answer(const std::string& status, const std::string& headers, const std::string& body) {
    return {"HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body};
}

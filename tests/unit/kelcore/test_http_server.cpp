#include "test_http_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace {

constexpr int kPollMilliseconds = 20;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void SendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<std::size_t>(count);
    }
}

SeenRequest ParseHead(const std::string& head) {
    SeenRequest request;
    const std::size_t firstEnd = head.find("\r\n");
    const std::size_t blank = head.find(' ');
    request.method = head.substr(0, blank);
    request.target = head.substr(blank + 1, head.rfind(' ', firstEnd) - blank - 1);
    for (std::size_t at = firstEnd + 2; at < head.size();) {
        const std::size_t end = std::min(head.find("\r\n", at), head.size());
        const std::size_t colon = head.find(": ", at);
        if (colon < end)
            request.headers[Lower(head.substr(at, colon - at))] = head.substr(colon + 2, end - colon - 2);
        at = end + 2;
    }
    return request;
}

}  // namespace

TestHttpServer::TestHttpServer(Script script) : script_(std::move(script)) {
    listener_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_.Get(), 64) != 0 ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("the test server cannot listen");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
}

TestHttpServer::~TestHttpServer() {
    stopping_ = true;
    acceptor_.join();
    for (std::thread& thread : threads_)
        thread.join();
}

std::vector<SeenRequest> TestHttpServer::Seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
}

void TestHttpServer::Accept() {
    for (int connection = 1; !stopping_;) {
        pollfd entry{listener_.Get(), POLLIN, 0};
        if (poll(&entry, 1, kPollMilliseconds) <= 0) continue;
        UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) continue;
        threads_.emplace_back(
            [this, connection, owned = std::move(fd)]() mutable { Serve(std::move(owned), connection); });
        ++connection;
    }
}

void TestHttpServer::Serve(UniqueFd fd, int connection) {
    std::string buffer;
    SeenRequest request;
    while (ReadRequest(fd.Get(), buffer, request)) {
        request.connection = connection;
        ScriptedAnswer answer;
        {
            const std::lock_guard lock(mutex_);
            seen_.push_back(request);
            answer = script_(request);
        }
        SendAll(fd.Get(), answer.bytes);
        if (answer.closeAfter) return;
        if (answer.holdAfter) {
            ReadRequest(fd.Get(), buffer, request);
            return;
        }
    }
}

/// False when the connection or the test ends.
bool TestHttpServer::ReadRequest(int fd, std::string& buffer, SeenRequest& request) {
    bool continued = false;
    while (!stopping_) {
        const std::size_t headEnd = buffer.find("\r\n\r\n");
        if (headEnd != std::string::npos) {
            request = ParseHead(buffer.substr(0, headEnd + 2));
            const std::string length = request.Header("content-length");
            const std::size_t total = headEnd + 4 + (length.empty() ? 0 : std::stoul(length));
            if (buffer.size() >= total) {
                request.body = buffer.substr(headEnd + 4, total - headEnd - 4);
                buffer.erase(0, total);
                return true;
            }
            if (!continued && !request.Header("expect").empty()) SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
            continued = true;
        }
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, kPollMilliseconds) <= 0) continue;
        char piece[65536];
        const ssize_t count = recv(fd, piece, sizeof(piece), 0);
        if (count <= 0) return false;
        buffer.append(piece, static_cast<std::size_t>(count));
    }
    return false;
}

std::string Pattern(std::uint64_t count, std::uint64_t offset) {
    std::string bytes(count, '\0');
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t at = offset + i;
        bytes[i] = static_cast<char>((at * 2654435761U) >> 13);
    }
    return bytes;
}

std::string AnswerText(const std::string& status, const std::string& headers, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

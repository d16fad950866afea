#include "filestore/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr const char* kAddress = "127.0.1.1";

std::size_t ContentLength(const ScriptedServer::Request& request) {
    return std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10);
}

bool ReadMore(int fd, KelString& text) {
    std::array<char, 4096> piece;
    const ssize_t got = recv(fd, piece.data(), piece.size(), 0);
    if (got <= 0) return false;
    text.append(piece.data(), static_cast<std::size_t>(got));
    return true;
}

void SendAll(int fd, const KelString& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t step = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (step <= 0) return;
        sent += static_cast<std::size_t>(step);
    }
}

bool ReadRequest(int fd, ScriptedServer::Request& request) {
    KelString text;
    while (text.find("\r\n\r\n") == KelString::npos)
        if (!ReadMore(fd, text)) return false;
    const std::size_t end = text.find("\r\n\r\n") + 4;
    request.head = text.substr(0, end);
    request.body = text.substr(end);
    const std::size_t blank = request.head.find(' ');
    request.method = request.head.substr(0, blank);
    request.path = request.head.substr(blank + 1, request.head.find(' ', blank + 1) - blank - 1);
    if (!request.Header("Expect").empty()) {
        if (request.Header("Authorization").empty()) return true;  // it is refused before its body comes
        SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
    }
    while (request.body.size() < ContentLength(request))
        if (!ReadMore(fd, request.body)) return false;
    return true;
}

}  // namespace

KelString ScriptedServer::Request::Header(const KelString& name) const {
    const std::size_t start = head.find("\r\n" + name + ": ");
    if (start == KelString::npos) return {};
    const std::size_t value = start + name.size() + 4;
    return head.substr(value, head.find("\r\n", value) - value);
}

KelContainer ScriptedServer::Request::Arguments() const {
    KelContainer arguments;
    if (!arguments.LoadFromXML(body)) throw std::runtime_error("an action call without a container");
    return arguments;
}

ScriptedServer::ScriptedServer(Script script)
    : script_(std::move(script)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, kAddress, &address.sin_addr);
    socklen_t length = sizeof(address);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || pipe(wake_) != 0)
        throw std::runtime_error("cannot listen on 127.0.1.1");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

ScriptedServer::~ScriptedServer() {
    close(wake_[1]);
    thread_.join();
    close(wake_[0]);
    close(listener_);
}

KelString ScriptedServer::HostAndPort() const {
    return KelString(kAddress) + ":" + std::to_string(port_);
}

KelVector<ScriptedServer::Request> ScriptedServer::Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void ScriptedServer::Serve() {
    for (;;) {
        std::array<pollfd, 2> waiting = {pollfd{listener_, POLLIN, 0}, pollfd{wake_[0], POLLIN, 0}};
        poll(waiting.data(), waiting.size(), -1);
        if (waiting[1].revents != 0) return;
        const int fd = accept(listener_, nullptr, nullptr);
        if (fd < 0) continue;
        ServeConnection(fd);
        close(fd);
    }
}

void ScriptedServer::ServeConnection(int fd) {
    Request request;
    if (!ReadRequest(fd, request)) return;
    if (request.Header("Authorization").empty()) {
        SendAll(fd,
                "HTTP/1.1 401 Unauthorized\r\nConnection: close\r\nContent-Length: 0\r\nWWW-Authenticate: "
                "Digest realm=\"tree\", nonce=\"00\", algorithm=SHA-256, qop=\"auth\"\r\n\r\n");
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    const Answer answer = script_(request);
    SendAll(fd, "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\nConnection: close\r\n" +
                    answer.headers + "Content-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n");
    SendAll(fd, answer.body.substr(0, answer.cutAfter));
}

ScriptedServer::Answer ScriptedServer::ActionResult(unsigned int result, const KelContainer& values) {
    return {200, "Content-Type: application/xml\r\nKel-Result: " + std::to_string(result) + "\r\n",
            values.SaveToXML(), SIZE_MAX};
}

ScriptedServer::Script ScriptedServer::FileScript(KelString content) {
    return [content = std::move(content)](const Request& request) -> Answer {
        const KelString range = request.Header("Range");
        if (range.empty()) return {200, "", content, SIZE_MAX};
        const std::size_t offset = std::strtoul(range.c_str() + KelString("bytes=").size(), nullptr, 10);
        if (offset >= content.size()) return {416, "", "", SIZE_MAX};
        return {206,
                "Content-Range: bytes " + std::to_string(offset) + "-" + std::to_string(content.size() - 1) +
                    "/" + std::to_string(content.size()) + "\r\n",
                content.substr(offset), SIZE_MAX};
    };
}

#include "filestore/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace {

constexpr const char* kAddress = "127.0.1.1";

void SendAll(int fd, const KelString& text) {
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);  // blocks until all is taken or the peer is gone
}

bool ReadRequest(int fd, ScriptedServer::Request& request) {
    for (char byte = 0; !request.head.ends_with("\r\n\r\n"); request.head += byte)
        if (recv(fd, &byte, 1, 0) != 1) return false;
    std::istringstream(request.head) >> request.method >> request.path;
    if (!request.Header("Expect").empty()) {
        if (request.Header("Authorization").empty()) return true;  // it is refused before its body comes
        SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n");
    }
    request.body.resize(std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10));
    const auto length = static_cast<ssize_t>(request.body.size());
    return length == 0 || recv(fd, request.body.data(), request.body.size(), MSG_WAITALL) == length;
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
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.Get(), generic, length) != 0 || listen(listener_.Get(), 16) != 0 ||
        getsockname(listener_.Get(), generic, &length) != 0)
        throw std::runtime_error("cannot listen on 127.0.1.1");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

ScriptedServer::~ScriptedServer() {
    shutdown(listener_.Get(), SHUT_RDWR);  // ends the waiting accept
    thread_.join();
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
        const UniqueFd connection(accept(listener_.Get(), nullptr, nullptr));
        if (connection)
            ServeConnection(connection.Get());
        else if (errno == EINVAL)  // shut down
            return;
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
            values.SaveToXML()};
}

ScriptedServer::Script ScriptedServer::ActionScript(unsigned int result, const KelContainer& values) {
    return [answer = ActionResult(result, values)](const Request&) { return answer; };
}

ScriptedServer::Script ScriptedServer::FileScript(KelString content) {
    return [content = std::move(content)](const Request& request) -> Answer {
        const KelString range = request.Header("Range");
        if (range.empty()) return {200, "", content};
        const std::size_t offset = std::strtoul(range.c_str() + KelString("bytes=").size(), nullptr, 10);
        if (offset >= content.size()) return {416};
        const KelString last = std::to_string(content.size() - 1);
        return {206,
                "Content-Range: bytes " + std::to_string(offset) + "-" + last + "/" +
                    std::to_string(content.size()) + "\r\n",
                content.substr(offset)};
    };
}

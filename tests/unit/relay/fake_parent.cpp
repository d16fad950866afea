#include "fake_parent.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>

#include "kel/container.h"

namespace {

std::string Body(const std::string& guid, bool settled) {
    KelContainer values;
    values.SetString("GUID", guid);
    values.SetBool("SchemeSettled", settled);
    KelContainer answer;
    answer.SetContainer("Values", values);
    return answer.SaveToXML();
}

bool IsComplete(const std::string& request) {
    const auto end = request.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const auto length = request.find("Content-Length: ");
    if (length == std::string::npos) return true;
    return request.size() >= end + 4 + std::stoul(request.substr(length + 16));
}

}  // namespace

FakeParent::FakeParent(std::string guid)
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), guid_(std::move(guid)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.Get(), any, size) != 0 || listen(listener_.Get(), 16) != 0 ||
        getsockname(listener_.Get(), any, &size) != 0) {
        throw std::runtime_error("no listening socket");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
}

FakeParent::~FakeParent() {
    isStopping_ = true;
    thread_.join();
}

void FakeParent::SetGuid(const std::string& guid) {
    const std::lock_guard lock(mutex_);
    guid_ = guid;
}

std::string FakeParent::GetLastRequest() {
    const std::lock_guard lock(mutex_);
    return lastRequest_;
}

void FakeParent::Serve() {
    while (!isStopping_) {
        pollfd wait = {listener_.Get(), POLLIN, 0};
        if (poll(&wait, 1, 20) <= 0) continue;
        const UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection) Answer(connection.Get());
    }
}

void FakeParent::Answer(int connection) {
    std::string request;
    while (!IsComplete(request)) {
        std::array<char, 4096> buffer{};
        const auto count = recv(connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) return;
        request.append(buffer.data(), static_cast<std::size_t>(count));
    }
    std::string body;
    {
        const std::lock_guard lock(mutex_);
        lastRequest_ = request;
        body = Body(guid_, settled_);
    }
    ++calls_;
    const std::string answer = "HTTP/1.1 " + std::to_string(status_) +
                               " X\r\nKel-Result: 0\r\nConnection: close\r\nContent-Type: application/xml\r\n"
                               "Content-Length: " +
                               std::to_string(body.size()) + "\r\n\r\n" + body;
    send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
}

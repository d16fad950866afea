#include "kelcore/net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <optional>

#include "kelcore/agent.h"

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in SocketAddress(IpAddress address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address.Value());
    return result;
}

bool BindToAgent(int fd) {
    if (KelAgentGetAddress().empty()) return true;
    const std::optional<IpAddress> own = IpAddress::Parse(KelAgentGetAddress());
    if (!own) return false;
    const sockaddr_in address = SocketAddress(*own, 0);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// Waits for a connection under way to succeed.
bool WaitConnected(int fd, Clock::time_point deadline) {
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry{fd, POLLOUT, 0};
        const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(std::min<long>(left, INT_MAX)) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        int error = 0;
        socklen_t length = sizeof(error);
        return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
    }
}

/// Further sends and receives block, but each for at most `seconds`.
bool MakeBlocking(int fd, unsigned int seconds) {
    const timeval limit{static_cast<time_t>(seconds), 0};
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0;
}

KelString FullHostName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? KelString(name.data()) : KelString();
}

KelString CanonicalName(const KelString& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return {};
    // The first entry alone carries the canonical name.
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
    return list->ai_canonname != nullptr ? KelString(list->ai_canonname) : KelString();
}

KelString AfterFirstDot(const KelString& name) {
    const std::size_t dot = name.find('.');
    return dot == KelString::npos ? KelString() : name.substr(dot + 1);
}

}  // namespace

std::uint32_t NetworkSocket::GetHostAddress(const KelString& host) {
    const std::optional<IpAddress> address = IpAddress::Resolve(host);
    return address ? address->Value() : 0;
}

long NetworkSocket::Send(std::span<const std::byte> data) {
    ssize_t sent = -1;
    do
        sent = send(fd_.Get(), data.data(), data.size(), MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent;
}

long NetworkSocket::Receive(std::span<std::byte> data) {
    ssize_t received = -1;
    do
        received = recv(fd_.Get(), data.data(), data.size(), 0);
    while (received < 0 && errno == EINTR);
    return received;
}

IpAddress NetworkSocket::GetLocalAddress() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return {};
    return IpAddress(ntohl(address.sin_addr.s_addr));
}

std::unique_ptr<NetworkSocket> SocketFactory::ConnectTcp(IpAddress address, std::uint16_t port,
                                                         unsigned int timeout) {
    // Non-blocking for connect only, which has no time-out of its own.
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd || !BindToAgent(fd.Get())) return nullptr;
    const sockaddr_in peer = SocketAddress(address, port);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeout);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) != 0) {
        if (errno != EINPROGRESS || !WaitConnected(fd.Get(), deadline)) return nullptr;
    }
    if (!MakeBlocking(fd.Get(), timeout)) return nullptr;
    return std::make_unique<NetworkSocket>(std::move(fd));
}

KelString GetLocalHostName() {
    const KelString name = FullHostName();
    return name.substr(0, name.find('.'));
}

KelString GetLocalDomainName() {
    const KelString name = FullHostName();
    const KelString domain = AfterFirstDot(name);
    return domain.empty() && !name.empty() ? AfterFirstDot(CanonicalName(name)) : domain;
}

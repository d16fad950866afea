#include "kelcore/net/udp_socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::uint32_t kEthernetMtu = 1500;

sockaddr_in SocketAddress(IpAddress address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address.Value());
    return result;
}

ip_mreqn Membership(IpAddress group, IpAddress local) {
    ip_mreqn result{};
    result.imr_multiaddr.s_addr = htonl(group.Value());
    result.imr_address.s_addr = htonl(local.Value());
    return result;
}

}  // namespace

UdpSocket::UdpSocket() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

bool UdpSocket::Bind(IpAddress local, std::uint16_t port) {
    const sockaddr_in address = SocketAddress(local, port);
    return ::bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool UdpSocket::Connect(IpAddress peer, std::uint16_t port, unsigned int timeoutSeconds) {
    const timeval limit{static_cast<time_t>(timeoutSeconds), 0};
    const sockaddr_in address = SocketAddress(peer, port);
    return ::setsockopt(fd_.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
           ::connect(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool UdpSocket::SetOption(int level, int name, int value) {
    return ::setsockopt(fd_.Get(), level, name, &value, sizeof value) == 0;
}

bool UdpSocket::SendThrough(IpAddress local) {
    const ip_mreqn route = Membership({}, local);
    return ::setsockopt(fd_.Get(), IPPROTO_IP, IP_MULTICAST_IF, &route, sizeof route) == 0;
}

bool UdpSocket::Join(IpAddress group, IpAddress local) {
    const ip_mreqn member = Membership(group, local);
    return SetOption(IPPROTO_IP, IP_MULTICAST_ALL, 0) &&
           ::setsockopt(fd_.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &member, sizeof member) == 0;
}

bool UdpSocket::Leave(IpAddress group, IpAddress local) {
    const ip_mreqn member = Membership(group, local);
    return ::setsockopt(fd_.Get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &member, sizeof member) == 0;
}

int UdpSocket::GrowReceiveBuffer(int bytes) {
    if (!SetOption(SOL_SOCKET, SO_RCVBUFFORCE, bytes)) SetOption(SOL_SOCKET, SO_RCVBUF, bytes);
    int granted = 0;
    socklen_t length = sizeof granted;
    ::getsockopt(fd_.Get(), SOL_SOCKET, SO_RCVBUF, &granted, &length);
    return granted / 2;  // the kernel reports twice the value, its own bookkeeping included
}

std::uint32_t UdpSocket::RouteMtu() const {
    int mtu = 0;
    socklen_t length = sizeof mtu;
    const bool isKnown = ::getsockopt(fd_.Get(), IPPROTO_IP, IP_MTU, &mtu, &length) == 0 && mtu > 0;
    return isKnown ? static_cast<std::uint32_t>(mtu) : kEthernetMtu;
}

#pragma once

#include <cstdint>

#include "kel/ip_address.h"
#include "kel/unique_fd.h"

/// A UDP socket (IPv4). One thread at a time. The operations answer false with errno set on failure.
class UdpSocket {
  public:
    /// Without a descriptor when the system gives none; every operation fails then.
    UdpSocket();

    /// Binds this end; port 0: any free port.
    bool Bind(IpAddress local, std::uint16_t port);

    /// Sets the destination of what is sent, within `timeoutSeconds`: nothing travels, but the system may
    /// have to be asked for a route.
    bool Connect(IpAddress peer, std::uint16_t port, unsigned int timeoutSeconds);

    /// Sets an option whose value is an `int`.
    bool SetOption(int level, int name, int value);

    /// Sends to multicast groups leave through the interface that has the address.
    bool SendThrough(IpAddress local);

    /// Receives what is sent to a group through the interface that has the address `local` (0.0.0.0: the one
    /// that the system's routes choose), and nothing of groups that only other sockets joined.
    bool Join(IpAddress group, IpAddress local);
    /// Undoes Join.
    bool Leave(IpAddress group, IpAddress local);

    /// Asks for receive buffers of `bytes`, beyond the system's limit when the process may; gives what was
    /// granted.
    int GrowReceiveBuffer(int bytes);

    /// The largest IP packet in bytes that the route of a connected socket takes; 1500 while unknown.
    std::uint32_t RouteMtu() const;

    int Get() const { return fd_.Get(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }

  private:
    UniqueFd fd_;
};

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "kel/ip_address.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

/// A connected TCP socket. One thread at a time.
class NetworkSocket {
  public:
    explicit NetworkSocket(UniqueFd fd) : fd_(std::move(fd)) {}

    /// The IPv4 address of a host name or dotted text as a number in host order; 0 when it cannot be
    /// resolved.
    static std::uint32_t GetHostAddress(const KelString& host);

    /// Sends once; the bytes taken, or -1.
    long Send(std::span<const std::byte> data);
    /// Receives once; the bytes got, 0 at the end, -1 on failure.
    long Receive(std::span<std::byte> data);
    /// This end of the connection.
    IpAddress GetLocalAddress() const;

  private:
    UniqueFd fd_;
};

/// Makes sockets, bound to the agent's own address.
class SocketFactory {
  public:
    /// Connects within `timeout` seconds; null on failure.
    static std::unique_ptr<NetworkSocket> ConnectTcp(IpAddress address, std::uint16_t port,
                                                     unsigned int timeout);
};

/// The host's name and its domain, each possibly empty, from the system's settings.
KelString GetLocalHostName();
KelString GetLocalDomainName();

#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "kelcore/net/udp_socket.h"

/// An HTTP message as it goes on the wire.
struct HttpWireMessage {
    std::string_view head;  ///< with the empty line at its end
    std::string_view body;
    std::size_t Size() const { return head.size() + body.size(); }
};

/// One end of a connected UDP socket to which HTTP messages are written, each as one datagram. One thread at
/// a time.
class HttpEndpoint {
  public:
    explicit HttpEndpoint(UdpSocket socket);
    ~HttpEndpoint();
    HttpEndpoint(HttpEndpoint&& other) noexcept;
    HttpEndpoint& operator=(HttpEndpoint&& other) noexcept;

    /// Sends one message; false with errno set when the system does not take it.
    bool SendMessage(const HttpWireMessage& message) { return SendMessages({&message, 1}); }

    /// The same for several, in their order and with as few system calls as possible. Equally long messages
    /// that fit the route's packets (the last one may be shorter) leave as one buffer that the kernel or the
    /// network card cuts, where these can.
    bool SendMessages(std::span<const HttpWireMessage> messages);

    /// Bytes of the IP packets in which a message of `size` bytes travels.
    std::size_t WireBytes(std::size_t size) const;

  private:
    bool FitsSegmentation(std::span<const HttpWireMessage> messages) const;
    bool SendSegmented(std::size_t count, std::size_t size);
    bool SendEach(std::size_t count);

    UdpSocket socket_;
    std::size_t mtu_;  ///< of the route, bytes
    bool canSegment_ = true;
    std::vector<struct iovec> pieces_;  ///< head and body of each message; kept to save allocations
    std::vector<struct mmsghdr> envelopes_;
};

#include "kelcore/http/endpoint.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr std::size_t kIpHeaderBytes = 20;
constexpr std::size_t kUdpHeaderBytes = 8;
// What the kernel takes as one buffer to be cut.
constexpr std::size_t kMaxSegments = 64;
constexpr std::size_t kMaxSegmentedBytes = 65000;

iovec Piece(std::string_view bytes) {
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

/// True for the errors that say that this system or interface cannot segment, not that it cannot send.
bool IsSegmentationRefused(int error) {
    return error == EINVAL || error == EIO || error == EMSGSIZE || error == ENOPROTOOPT ||
           error == EOPNOTSUPP;
}

}  // namespace

// Here, where the system's structures are complete.
HttpEndpoint::HttpEndpoint(UdpSocket socket) : socket_(std::move(socket)), mtu_(socket_.RouteMtu()) {}
HttpEndpoint::~HttpEndpoint() = default;
HttpEndpoint::HttpEndpoint(HttpEndpoint&& other) noexcept = default;
HttpEndpoint& HttpEndpoint::operator=(HttpEndpoint&& other) noexcept = default;

std::size_t HttpEndpoint::WireBytes(std::size_t size) const {
    const std::size_t perPacket = std::max(mtu_, kIpHeaderBytes + kUdpHeaderBytes) - kIpHeaderBytes;
    const std::size_t payload = size + kUdpHeaderBytes;
    return payload + (payload + perPacket - 1) / perPacket * kIpHeaderBytes;
}

bool HttpEndpoint::SendMessages(std::span<const HttpWireMessage> messages) {
    while (!messages.empty()) {
        const std::size_t fitting = std::max<std::size_t>(kMaxSegmentedBytes / messages[0].Size(), 1);
        const auto batch = messages.first(std::min({messages.size(), kMaxSegments, fitting}));
        pieces_.clear();
        for (const HttpWireMessage& message : batch) {
            pieces_.push_back(Piece(message.head));
            pieces_.push_back(Piece(message.body));
        }
        const bool isSent = (FitsSegmentation(batch) && SendSegmented(batch.size(), batch[0].Size())) ||
                            SendEach(batch.size());
        if (!isSent) return false;
        messages = messages.subspan(batch.size());
    }
    return true;
}

bool HttpEndpoint::FitsSegmentation(std::span<const HttpWireMessage> messages) const {
    const std::size_t size = messages[0].Size();
    return canSegment_ && messages.size() > 1 && size + kUdpHeaderBytes + kIpHeaderBytes <= mtu_ &&
           std::ranges::all_of(messages.first(messages.size() - 1),
                               [size](const HttpWireMessage& message) { return message.Size() == size; }) &&
           messages.back().Size() <= size;
}

/// False when the messages have to be sent one by one.
bool HttpEndpoint::SendSegmented(std::size_t count, std::size_t size) {
    const auto segment = static_cast<std::uint16_t>(size);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof segment)> control{};
    msghdr envelope{};
    envelope.msg_iov = pieces_.data();
    envelope.msg_iovlen = 2 * count;
    envelope.msg_control = control.data();
    envelope.msg_controllen = control.size();
    cmsghdr* const option = CMSG_FIRSTHDR(&envelope);
    option->cmsg_level = SOL_UDP;
    option->cmsg_type = UDP_SEGMENT;
    option->cmsg_len = CMSG_LEN(sizeof segment);
    std::memcpy(CMSG_DATA(option), &segment, sizeof segment);
    ssize_t sent = -1;
    do
        sent = ::sendmsg(socket_.Get(), &envelope, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    if (sent < 0 && IsSegmentationRefused(errno)) canSegment_ = false;
    return sent >= 0;
}

bool HttpEndpoint::SendEach(std::size_t count) {
    envelopes_.assign(count, {});
    for (std::size_t i = 0; i < count; ++i) {
        envelopes_[i].msg_hdr.msg_iov = &pieces_[2 * i];
        envelopes_[i].msg_hdr.msg_iovlen = 2;
    }
    for (std::size_t done = 0; done < count;) {
        const int sent = ::sendmmsg(socket_.Get(), &envelopes_[done], static_cast<unsigned int>(count - done),
                                    MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

#include "modules/http_protocol/datagram_reader.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#ifndef UDP_GRO
#define UDP_GRO 104
#endif

namespace kelhttp {
namespace {

constexpr std::size_t kMessages = 32;
constexpr std::size_t kMessageBytes = std::size_t{64} << 10;  ///< what a UDP datagram can hold, and a buffer
constexpr std::size_t kControlBytes = CMSG_SPACE(sizeof(std::uint32_t)) + CMSG_SPACE(sizeof(int));

}  // namespace

/// Not filled with zeros: small datagrams touch one page of each buffer only.
void DatagramReader::MakeBuffers() {
    bytes_ = std::make_unique_for_overwrite<char[]>(kMessages * kMessageBytes);
    control_.resize(kMessages * kControlBytes);
    pieces_.resize(kMessages);
    envelopes_.resize(kMessages);
}

void DatagramReader::Prepare(int socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_UDP, UDP_GRO, &on, sizeof on);
    ::setsockopt(socket, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
}

std::span<const std::string_view> DatagramReader::Read(int socket) {
    if (!bytes_) MakeBuffers();
    datagrams_.clear();
    kernelDrops_ = 0;
    for (std::size_t i = 0; i < kMessages; ++i) {
        pieces_[i] = {&bytes_[i * kMessageBytes], kMessageBytes};
        envelopes_[i] = {};
        msghdr& header = envelopes_[i].msg_hdr;
        header.msg_iov = &pieces_[i];
        header.msg_iovlen = 1;
        header.msg_control = &control_[i * kControlBytes];
        header.msg_controllen = kControlBytes;
    }
    int count = -1;
    do
        count = ::recvmmsg(socket, envelopes_.data(), kMessages, MSG_DONTWAIT, nullptr);
    while (count < 0 && errno == EINTR);
    isFull_ = count == static_cast<int>(kMessages);
    for (std::size_t i = 0; count > 0 && i < static_cast<std::size_t>(count); ++i)
        TakeMessage(i);
    return datagrams_;
}

/// A buffer may hold several datagrams, all but the last of the size that the kernel reports.
void DatagramReader::TakeMessage(std::size_t index) {
    msghdr& header = envelopes_[index].msg_hdr;
    std::string_view rest(&bytes_[index * kMessageBytes], envelopes_[index].msg_len);
    std::size_t size = rest.size();
    for (cmsghdr* entry = CMSG_FIRSTHDR(&header); entry != nullptr; entry = CMSG_NXTHDR(&header, entry)) {
        if (entry->cmsg_level == SOL_UDP && entry->cmsg_type == UDP_GRO) {
            int segment = 0;
            std::memcpy(&segment, CMSG_DATA(entry), sizeof segment);
            if (segment > 0) size = static_cast<std::size_t>(segment);
        } else if (entry->cmsg_level == SOL_SOCKET && entry->cmsg_type == SO_RXQ_OVFL) {
            std::memcpy(&kernelDrops_, CMSG_DATA(entry), sizeof kernelDrops_);
        }
    }
    if (rest.empty()) datagrams_.push_back(rest);
    while (!rest.empty()) {
        datagrams_.push_back(rest.substr(0, size));
        rest.remove_prefix(std::min(size, rest.size()));
    }
}

}  // namespace kelhttp

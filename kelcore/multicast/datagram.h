#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kel/hmac.h"
#include "kel/types.h"

// The datagrams of a multicast transfer: HTTP messages (RFC 9112) of which each carries one range of the file
// (Content-Range, RFC 9110):
//
//   PUT /path HTTP/1.1
//   Content-Range: bytes 0001024-0002047/9437184
//   Content-Length: 1024
//   Kel-Code: 32 hexadecimal digits
//
//   1024 bytes
//
// The numbers of the range have as many digits as the size, so that all datagrams of a transfer but the last
// are equally long; the kernel can then cut many of them from one buffer.
//
// Kel-Code holds the first half of HMAC-SHA-256 over the offset (eight bytes, most significant first) and the
// body. Its key is derived from the tree's password and from what a transfer is known by, so that a datagram
// of another transfer, another group or another tree does not pass.

/// What a transfer is known by.
struct MulticastTransfer {
    KelString group;  ///< dotted IPv4 address
    std::uint16_t port = 0;
    KelString urlPath;  ///< raw, begins with "/"
    std::uint64_t fileSize = 0;
    bool operator==(const MulticastTransfer&) const = default;
};

/// The key of a transfer. One thread at a time.
class MulticastKey {
  public:
    using Code = std::array<char, 32>;

    MulticastKey(const KelString& secret, const MulticastTransfer& transfer);

    /// The text of Kel-Code for `body` at `offset` of the file.
    Code CodeOf(std::uint64_t offset, std::string_view body) const;

  private:
    HmacKey key_;
};

/// Writes the heads of a transfer's datagrams. One thread at a time.
class MulticastHeads {
  public:
    MulticastHeads(const KelString& secret, const MulticastTransfer& transfer);

    /// Sets `head` to what stands before `body`, which is the file's content from `offset` on; not empty.
    void Write(std::uint64_t offset, std::string_view body, KelString& head) const;

  private:
    void AppendPosition(std::uint64_t position, KelString& head) const;

    MulticastKey key_;
    KelString beginning_;  ///< up to the range
    KelString size_;       ///< of the file, in decimal
};

/// A datagram taken apart; the views are parts of it. Nothing about it has been verified.
struct MulticastDatagram {
    std::string_view path;  ///< percent-encoded
    std::uint64_t offset = 0;
    std::uint64_t fileSize = 0;
    std::string_view code;
    std::string_view body;  ///< as long as the range and Content-Length say, within the file
};

/// Nothing for what is no such message, or contradicts itself.
std::optional<MulticastDatagram> ParseMulticastDatagram(std::string_view bytes);

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace kelhttp {

/// Whom a channel tells about the end of an operation; on the channel's I/O thread.
class ChannelUser {
  public:
    virtual ~ChannelUser() = default;
    virtual void OnOpened(bool ok) = 0;
    /// `count` bytes arrived; `ok` false: the peer closed or the connection broke.
    virtual void OnRead(bool ok, std::size_t count) = 0;
    virtual void OnWritten(bool ok) = 0;
};

/// A connected stream. Everything runs on the thread of one I/O loop. At most one read and one write (Write
/// or SendFile) are in progress at a time; each keeps its user alive until it has told it the end. After
/// Close, operations in progress end with ok false.
class Channel {
  public:
    using User = std::shared_ptr<ChannelUser>;
    enum class Outcome : unsigned char { Done, Pending, Failed };  ///< Pending: OnWritten follows

    virtual ~Channel() = default;

    /// Does what comes before the first byte (a TLS handshake), then calls OnOpened, maybe at once.
    virtual void Open(const User& user) = 0;

    /// Waits for bytes, then puts them into `into`. `into` is not written to while the wait lasts, so that
    /// many channels may wait with the same buffer; the user must be done with it when OnRead returns.
    virtual void Read(std::span<char> into, const User& user) = 0;

    /// Sends `data`, which must stay until the end.
    virtual Outcome Write(std::string_view data, const User& user) = 0;

    /// Sends `length` bytes of the file `fd` from `offset` on; `fd` must stay open until the end.
    virtual Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) = 0;

    virtual void ShutdownSend() = 0;
    virtual void Close() = 0;

    virtual bool IsEncrypted() const = 0;
    /// Bytes sent so far: tells a slow peer from one that takes nothing.
    virtual std::uint64_t BytesSent() const = 0;
};

}  // namespace kelhttp

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "kelcore/call_origin.h"
#include "kelcore/keys/key_ring.h"

namespace kelhttp {

/// Receives a channel's completions, on the channel's I/O thread.
class ChannelUser {
  public:
    virtual ~ChannelUser() = default;
    virtual void OnOpened(bool ok) = 0;
    /// `count` bytes arrived; `ok` false: the peer closed or the connection broke.
    virtual void OnRead(bool ok, std::size_t count) = 0;
    virtual void OnWritten(bool ok) = 0;
};

/// A connected stream. Everything runs on the thread of one I/O loop. At most one read and one write (Write
/// or SendFile) are in progress at a time; each keeps its user alive until it has completed. After Close,
/// operations in progress complete with ok false.
class Channel {
  public:
    using User = std::shared_ptr<ChannelUser>;
    enum class Outcome : unsigned char { Done, Pending, Failed };  ///< Pending: OnWritten follows

    virtual ~Channel() = default;

    /// Makes the connection ready for its first byte (the TLS handshake), then calls OnOpened, possibly at
    /// once.
    virtual void Open(const User& user) = 0;

    /// Waits for bytes, then writes them to `into`. `into` is not touched while it waits, so that many
    /// channels can wait with the same buffer; the user must have finished with it when OnRead returns.
    virtual void Read(std::span<char> into, const User& user) = 0;

    /// Sends `data`, which must stay valid until the write completes.
    virtual Outcome Write(std::string_view data, const User& user) = 0;

    /// Sends `length` bytes of the file `fd` from `offset` on; `fd` must stay open until then.
    virtual Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) = 0;

    virtual void ShutdownSend() = 0;
    virtual void Close() = 0;

    /// Frees memory that is not needed while nothing comes or goes; it is allocated again with the next byte.
    virtual void ReleaseBuffers() {}

    virtual bool IsEncrypted() const = 0;
    /// What the connection shows of the peer, once it is open; without its address.
    virtual KelPeer Peer() const = 0;
    /// What the certificate of the peer says, in a tree with keys; null elsewhere.
    virtual const KelTlsPeer* TlsPeer() const { return nullptr; }
    /// A number that changes whenever the peer has acknowledged bytes: distinguishes a slow peer from one
    /// that has stopped reading.
    virtual std::uint64_t BytesTaken() = 0;
};

/// Bytes of a TCP socket that the peer has not acknowledged yet.
std::uint64_t UnacknowledgedBytes(int socket);

}  // namespace kelhttp

#pragma once

#include <openssl/ssl.h>
#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <memory>
#include <vector>

#include "kelcore/security.h"
#include "modules/http_protocol/channel.h"

namespace kelhttp {

/// A channel over TLS (RFC 8446). OpenSSL works on the socket itself, so a connection that waits needs no
/// buffers once ReleaseBuffers was called; before that it keeps them, about 34 KiB. Sends are tried at once
/// and wait only when the socket is full; file bodies are read and encrypted piece by piece. The process has
/// to ignore SIGPIPE.
class TlsChannel final : public Channel {
  public:
    /// With `keys`, the certificate that the client presents is examined; null in a plain tree. Throws
    /// std::runtime_error, or boost::system::system_error when the socket cannot be made non-blocking.
    TlsChannel(boost::asio::ip::tcp::socket socket, SSL_CTX& context, AgentSecurityKeys keys);

    void Open(const User& user) override;
    void Read(std::span<char> into, const User& user) override;
    Outcome Write(std::string_view data, const User& user) override;
    Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) override;
    void ShutdownSend() override;
    void Close() override;
    void ReleaseBuffers() override;
    bool IsEncrypted() const override { return true; }
    KelPeer Peer() const override;
    const KelTlsPeer* TlsPeer() const override { return keys_ ? &peer_ : nullptr; }
    std::uint64_t BytesTaken() override;

  private:
    struct Free {
        void operator()(SSL* connection) const { SSL_free(connection); }
    };
    using Step = Outcome (TlsChannel::*)();

    void ReadNow(std::span<char> into, const User& user);
    Outcome Shake();
    Outcome PushData();
    Outcome PushFile();
    Outcome OutcomeOf(int result);
    bool FillPiece();
    Outcome Run(Step step, const User& user);
    void ContinueWhenReady(Step step, std::function<void(bool)> then);
    void ExaminePeer();

    boost::asio::ip::tcp::socket socket_;
    const std::unique_ptr<SSL, Free> connection_;
    const AgentSecurityKeys keys_;
    KelTlsPeer peer_;
    boost::asio::socket_base::wait_type awaited_ =
        boost::asio::socket_base::wait_read;  ///< by the operation that is pending
    bool mayHaveMore_ = true;                 ///< OpenSSL may hold bytes that it has read of the socket
    std::string_view data_;                   ///< still to be sent
    std::vector<char> piece_;                 ///< of the file; empty while none is sent
    int file_ = -1;
    std::uint64_t fileOffset_ = 0;  ///< behind the piece
    std::uint64_t fileLeft_ = 0;    ///< behind the piece
    std::uint64_t sent_ = 0;
};

}  // namespace kelhttp

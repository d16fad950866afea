#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <vector>

#include "kelcore/security.h"
#include "modules/http_protocol/channel.h"

namespace kelhttp {

/// A channel over TLS (RFC 8446). File bodies are read and encrypted piece by piece.
class TlsChannel final : public Channel {
  public:
    /// With `keys`, the certificate that the client presents is examined; null in a plain tree.
    TlsChannel(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& context,
               AgentSecurityKeys keys);

    void Open(const User& user) override;
    void Read(std::span<char> into, const User& user) override;
    Outcome Write(std::string_view data, const User& user) override;
    Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) override;
    void ShutdownSend() override;
    void Close() override;
    bool IsEncrypted() const override { return true; }
    KelPeer Peer() const override;
    const KelTlsPeer* TlsPeer() const override { return keys_ ? &peer_ : nullptr; }
    std::uint64_t BytesTaken() override;

  private:
    void SendNextPiece(const User& user);
    void ExaminePeer();

    boost::asio::ssl::stream<boost::asio::ip::tcp::socket> stream_;
    const AgentSecurityKeys keys_;
    KelTlsPeer peer_;
    std::vector<char> input_;
    std::vector<char> piece_;
    int file_ = -1;
    std::uint64_t fileOffset_ = 0;
    std::uint64_t fileLeft_ = 0;
    std::uint64_t sent_ = 0;
};

}  // namespace kelhttp

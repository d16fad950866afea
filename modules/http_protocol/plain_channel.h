#pragma once

#include <boost/asio/ip/tcp.hpp>

#include "modules/http_protocol/channel.h"

namespace kelhttp {

/// A channel on a bare TCP socket. Sends are tried at once and wait only when the socket is full; files go
/// out with sendfile(2).
class PlainChannel final : public Channel {
  public:
    /// Throws boost::system::system_error when the socket cannot be made non-blocking.
    explicit PlainChannel(boost::asio::ip::tcp::socket socket);

    void Open(const User& user) override { user->OnOpened(true); }
    void Read(std::span<char> into, const User& user) override;
    Outcome Write(std::string_view data, const User& user) override;
    Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) override;
    void ShutdownSend() override;
    void Close() override;
    bool IsEncrypted() const override { return false; }
    const KelTlsPeer& TlsPeer() const override { return unproved_; }
    std::uint64_t BytesTaken() override;

  private:
    Outcome PushData();
    Outcome PushFile();
    void ContinueWhenWritable(Outcome (PlainChannel::*push)(), const User& user);

    boost::asio::ip::tcp::socket socket_;
    const KelTlsPeer unproved_;
    std::string_view data_;
    int file_ = -1;
    std::uint64_t fileOffset_ = 0;
    std::uint64_t fileLeft_ = 0;
    std::uint64_t sent_ = 0;
};

}  // namespace kelhttp

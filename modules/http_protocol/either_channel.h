#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <memory>

#include "kelcore/security.h"
#include "modules/http_protocol/channel.h"

namespace kelhttp {

/// A channel over TLS or on a bare socket, as the first byte of the peer says: in a tree on its way to keys,
/// members with and without keys come to the same port.
class EitherChannel final : public Channel {
  public:
    EitherChannel(boost::asio::ip::tcp::socket socket, std::shared_ptr<boost::asio::ssl::context> context,
                  AgentSecurityKeys keys)
        : socket_(std::move(socket)), context_(std::move(context)), keys_(std::move(keys)) {}

    void Open(const User& user) override;
    void Read(std::span<char> into, const User& user) override { chosen_->Read(into, user); }
    Outcome Write(std::string_view data, const User& user) override { return chosen_->Write(data, user); }
    Outcome SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) override {
        return chosen_->SendFile(fd, offset, length, user);
    }
    void ShutdownSend() override;
    void Close() override;
    void ReleaseBuffers() override {
        if (chosen_) chosen_->ReleaseBuffers();
    }
    bool IsEncrypted() const override { return chosen_ && chosen_->IsEncrypted(); }
    KelPeer Peer() const override { return chosen_ ? chosen_->Peer() : KelPeer(); }
    const KelTlsPeer* TlsPeer() const override { return chosen_ ? chosen_->TlsPeer() : nullptr; }
    std::uint64_t BytesTaken() override { return chosen_ ? chosen_->BytesTaken() : 0; }

  private:
    bool Choose(bool isTls);

    boost::asio::ip::tcp::socket socket_;
    const std::shared_ptr<boost::asio::ssl::context> context_;
    const AgentSecurityKeys keys_;
    std::unique_ptr<Channel> chosen_;  ///< null until the first byte has come
};

}  // namespace kelhttp

#include "modules/http_protocol/tls_channel.h"

#include <unistd.h>
#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <cstring>
#include <ctime>

#include "kelcore/metrics/transfer_counters.h"

namespace kelhttp {
namespace {

constexpr std::size_t kInputBytes = 16 << 10;
constexpr std::size_t kPieceBytes = 64 << 10;

}  // namespace

TlsChannel::TlsChannel(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& context,
                       AgentSecurityKeys keys)
    : stream_(std::move(socket), context), keys_(std::move(keys)), input_(kInputBytes) {
    boost::system::error_code ignored;
    stream_.next_layer().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
}

void TlsChannel::Open(const User& user) {
    stream_.async_handshake(boost::asio::ssl::stream_base::server,
                            [this, user](const boost::system::error_code& error) {
                                if (!error) ExaminePeer();
                                user->OnOpened(!error);
                            });
}

/// After every handshake, also one that resumes a session: much may have changed since that began.
void TlsChannel::ExaminePeer() {
    X509* const certificate = SSL_get0_peer_certificate(stream_.native_handle());
    if (keys_ && certificate != nullptr)
        peer_ = keys_->Examine(certificate, KelTlsSide::Client, {}, std::time(nullptr));
}

KelPeer TlsChannel::Peer() const {
    if (!keys_) return {.proof = KelPeer::Proof::Password};
    if (!peer_.isVerified) return {.proof = KelPeer::Proof::None};
    return {.proof = KelPeer::Proof::Certificate, .deviceGuid = peer_.guid, .deviceRole = peer_.role};
}

void TlsChannel::Read(std::span<char> into, const User& user) {
    // Into a buffer of its own: OpenSSL may write to it before the read completes.
    stream_.async_read_some(boost::asio::buffer(input_.data(), std::min(input_.size(), into.size())),
                            [this, into, user](const boost::system::error_code& error, std::size_t count) {
                                if (!error) std::memcpy(into.data(), input_.data(), count);
                                user->OnRead(!error, count);
                            });
}

Channel::Outcome TlsChannel::Write(std::string_view data, const User& user) {
    boost::asio::async_write(stream_, boost::asio::buffer(data.data(), data.size()),
                             [this, user](const boost::system::error_code& error, std::size_t count) {
                                 sent_ += count;
                                 user->OnWritten(!error);
                             });
    return Outcome::Pending;
}

Channel::Outcome TlsChannel::SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) {
    file_ = fd;
    fileOffset_ = offset;
    fileLeft_ = length;
    piece_.resize(kPieceBytes);
    if (length == 0) return Outcome::Done;
    SendNextPiece(user);
    return Outcome::Pending;
}

void TlsChannel::SendNextPiece(const User& user) {
    const std::size_t wanted = std::min<std::uint64_t>(fileLeft_, piece_.size());
    const ssize_t count = ::pread(file_, piece_.data(), wanted, static_cast<off_t>(fileOffset_));
    // When the file has become shorter, the connection is closed and the write below completes with an error.
    if (count <= 0) Close();
    const std::size_t length = count > 0 ? static_cast<std::size_t>(count) : 1;
    boost::asio::async_write(
        stream_, boost::asio::buffer(piece_.data(), length),
        [this, user](const boost::system::error_code& error, std::size_t written) {
            if (error) return user->OnWritten(false);
            sent_ += written;
            fileOffset_ += written;
            fileLeft_ -= written;
            KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Http).bytes.Add(written);
            if (fileLeft_ > 0) return SendNextPiece(user);
            piece_ = {};
            user->OnWritten(true);
        });
}

std::uint64_t TlsChannel::BytesTaken() {
    return sent_ - UnacknowledgedBytes(stream_.next_layer().native_handle());
}

void TlsChannel::ShutdownSend() {
    boost::system::error_code ignored;
    stream_.next_layer().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

void TlsChannel::Close() {
    boost::system::error_code ignored;
    stream_.next_layer().close(ignored);
}

}  // namespace kelhttp

#include "modules/http_protocol/tls_channel.h"

#include <openssl/err.h>
#include <unistd.h>
#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "kelcore/metrics/transfer_counters.h"

namespace kelhttp {
namespace {

/// Of a file, read at once: a few records.
constexpr std::size_t kPieceBytes = 64 << 10;
/// Pieces before other connections of the loop get their turn.
constexpr int kPiecesPerTurn = 32;
constexpr int kModes = SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

int Limited(std::size_t count) {
    return static_cast<int>(std::min<std::size_t>(count, 1 << 30));
}

}  // namespace

TlsChannel::TlsChannel(boost::asio::ip::tcp::socket socket, SSL_CTX& context, AgentSecurityKeys keys)
    : socket_(std::move(socket)), connection_(SSL_new(&context)), keys_(std::move(keys)) {
    if (!connection_ || SSL_set_fd(connection_.get(), socket_.native_handle()) != 1)
        throw std::runtime_error("OpenSSL has no memory for a connection");
    SSL_set_mode(connection_.get(), kModes);
    // A whole request with one call of the system, instead of one for each head of a record.
    SSL_set_read_ahead(connection_.get(), 1);
    SSL_set_accept_state(connection_.get());
    socket_.non_blocking(true);
    boost::system::error_code ignored;
    socket_.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
}

/// What the last call on the connection has come to; while it is pending, `awaited_` is what it waits for.
Channel::Outcome TlsChannel::OutcomeOf(int result) {
    if (result > 0) return Outcome::Done;
    const int error = SSL_get_error(connection_.get(), result);
    awaited_ = error == SSL_ERROR_WANT_READ ? boost::asio::socket_base::wait_read
                                            : boost::asio::socket_base::wait_write;
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? Outcome::Pending : Outcome::Failed;
}

/// Repeats `step` whenever the socket is ready, then calls `then` with its success.
void TlsChannel::ContinueWhenReady(Step step, std::function<void(bool)> then) {
    socket_.async_wait(awaited_,
                       [this, step, then = std::move(then)](const boost::system::error_code& error) mutable {
                           if (error || !socket_.is_open()) return then(false);
                           const Outcome outcome = (this->*step)();
                           if (outcome == Outcome::Pending) return ContinueWhenReady(step, std::move(then));
                           then(outcome == Outcome::Done);
                       });
}

void TlsChannel::Open(const User& user) {
    awaited_ = boost::asio::socket_base::wait_read;
    ContinueWhenReady(&TlsChannel::Shake, [this, user](bool ok) {
        if (ok) ExaminePeer();
        user->OnOpened(ok);
    });
}

Channel::Outcome TlsChannel::Shake() {
    ERR_clear_error();
    return OutcomeOf(SSL_do_handshake(connection_.get()));
}

/// After every handshake, also one that resumes a session: much may have changed since that began.
void TlsChannel::ExaminePeer() {
    X509* const certificate = SSL_get0_peer_certificate(connection_.get());
    if (keys_ && certificate != nullptr)
        peer_ = keys_->Examine(certificate, KelTlsSide::Client, {}, std::time(nullptr));
}

KelPeer TlsChannel::Peer() const {
    if (!keys_) return {.proof = KelPeer::Proof::Password};
    if (!peer_.isVerified) return {.proof = KelPeer::Proof::None};
    return {.proof = KelPeer::Proof::Certificate, .deviceGuid = peer_.guid, .deviceRole = peer_.role};
}

void TlsChannel::Read(std::span<char> into, const User& user) {
    // The socket does not become readable for what OpenSSL has read of it already.
    if (mayHaveMore_)
        return boost::asio::post(socket_.get_executor(), [this, into, user] { ReadNow(into, user); });
    socket_.async_wait(boost::asio::socket_base::wait_read,
                       [this, into, user](const boost::system::error_code& error) {
                           if (error) return user->OnRead(false, 0);
                           ReadNow(into, user);
                       });
}

void TlsChannel::ReadNow(std::span<char> into, const User& user) {
    if (!socket_.is_open()) return user->OnRead(false, 0);
    std::size_t count = 0;
    Outcome outcome = Outcome::Done;
    // A record at a time. What is still in the socket makes it readable again: waiting looks anew.
    do {
        ERR_clear_error();
        const int result = SSL_read(connection_.get(), into.data() + count, Limited(into.size() - count));
        outcome = OutcomeOf(result);
        if (result > 0) count += static_cast<std::size_t>(result);
        mayHaveMore_ = outcome == Outcome::Done && SSL_has_pending(connection_.get()) == 1;
    } while (mayHaveMore_ && count < into.size());
    if (count > 0 || outcome == Outcome::Failed) return user->OnRead(count > 0, count);
    Read(into, user);
}

/// The first try of a send, and the rest of it when the socket is full.
Channel::Outcome TlsChannel::Run(Step step, const User& user) {
    if (!socket_.is_open()) return Outcome::Failed;
    const Outcome outcome = (this->*step)();
    if (outcome == Outcome::Pending) ContinueWhenReady(step, [user](bool ok) { user->OnWritten(ok); });
    return outcome;
}

Channel::Outcome TlsChannel::Write(std::string_view data, const User& user) {
    data_ = data;
    return Run(&TlsChannel::PushData, user);
}

Channel::Outcome TlsChannel::PushData() {
    while (!data_.empty()) {
        ERR_clear_error();
        const int result = SSL_write(connection_.get(), data_.data(), Limited(data_.size()));
        if (const Outcome outcome = OutcomeOf(result); outcome != Outcome::Done) return outcome;
        data_.remove_prefix(static_cast<std::size_t>(result));
        sent_ += static_cast<std::uint64_t>(result);
    }
    return Outcome::Done;
}

Channel::Outcome TlsChannel::SendFile(int fd, std::uint64_t offset, std::uint64_t length, const User& user) {
    file_ = fd;
    fileOffset_ = offset;
    fileLeft_ = length;
    data_ = {};
    return Run(&TlsChannel::PushFile, user);
}

Channel::Outcome TlsChannel::PushFile() {
    for (int piece = 0; fileLeft_ > 0 || !data_.empty(); ++piece) {
        if (piece == kPiecesPerTurn) {
            awaited_ = boost::asio::socket_base::wait_write;
            return Outcome::Pending;
        }
        if (data_.empty() && !FillPiece()) return Outcome::Failed;
        if (const Outcome outcome = PushData(); outcome != Outcome::Done) return outcome;
    }
    piece_ = {};
    return Outcome::Done;
}

/// Takes the next bytes of the file to be sent; false when it has become shorter than was announced.
bool TlsChannel::FillPiece() {
    piece_.resize(std::min<std::uint64_t>(fileLeft_, kPieceBytes));
    ssize_t count = 0;
    do {
        count = ::pread(file_, piece_.data(), piece_.size(), static_cast<off_t>(fileOffset_));
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    data_ = std::string_view(piece_.data(), static_cast<std::size_t>(count));
    fileOffset_ += data_.size();
    fileLeft_ -= data_.size();
    KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Http).bytes.Add(data_.size());
    return true;
}

/// Before 3.0.14, OpenSSL frees them even while it needs them: with content that has not been read yet, or
/// between the head of a record and its body ("RB").
void TlsChannel::ReleaseBuffers() {
    const bool isBetweenRecords = std::string_view(SSL_rstate_string(connection_.get())) != "RB";
    if (!mayHaveMore_ && isBetweenRecords) SSL_free_buffers(connection_.get());
}

std::uint64_t TlsChannel::BytesTaken() {
    return sent_ - UnacknowledgedBytes(socket_.native_handle());
}

void TlsChannel::ShutdownSend() {
    boost::system::error_code ignored;
    socket_.shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

void TlsChannel::Close() {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace kelhttp

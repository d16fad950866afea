#include "modules/http_protocol/plain_channel.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>

#include "kelcore/metrics/transfer_counters.h"

namespace kelhttp {
namespace {

/// Bytes per sendfile call, and calls before other connections of the loop get their turn.
constexpr std::uint64_t kPieceBytes = 2 << 20;
constexpr int kPiecesPerTurn = 8;
/// The limit of bytes in the socket that TCP has not sent yet. It keeps memory per slow peer small and the
/// data in the processor's cache until it is sent; it does not limit the bytes in flight.
constexpr int kUnsentBytes = 512 << 10;

}  // namespace

std::uint64_t UnacknowledgedBytes(int socket) {
    int bytes = 0;
    return ::ioctl(socket, SIOCOUTQ, &bytes) == 0 ? static_cast<std::uint64_t>(bytes) : 0;
}

PlainChannel::PlainChannel(boost::asio::generic::stream_protocol::socket socket, KelPeer::Proof proof)
    : socket_(std::move(socket)), proof_(proof) {
    socket_.non_blocking(true);
    if (proof_ == KelPeer::Proof::Socket) return;
    const int noDelay = 1;
    ::setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    ::setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentBytes, sizeof kUnsentBytes);
}

void PlainChannel::Read(std::span<char> into, const User& user) {
    socket_.async_wait(boost::asio::socket_base::wait_read,
                       [this, into, user](const boost::system::error_code& error) {
                           if (error || !socket_.is_open()) return user->OnRead(false, 0);
                           const ssize_t count = ::recv(socket_.native_handle(), into.data(), into.size(), 0);
                           if (count < 0 && (errno == EAGAIN || errno == EINTR)) return Read(into, user);
                           user->OnRead(count > 0, count > 0 ? static_cast<std::size_t>(count) : 0);
                       });
}

Channel::Outcome PlainChannel::Write(std::string_view data, const User& user) {
    data_ = data;
    const Outcome outcome = PushData();
    if (outcome == Outcome::Pending) ContinueWhenWritable(&PlainChannel::PushData, user);
    return outcome;
}

Channel::Outcome PlainChannel::SendFile(int fd, std::uint64_t offset, std::uint64_t length,
                                        const User& user) {
    file_ = fd;
    fileOffset_ = offset;
    fileLeft_ = length;
    const Outcome outcome = PushFile();
    if (outcome == Outcome::Pending) ContinueWhenWritable(&PlainChannel::PushFile, user);
    return outcome;
}

Channel::Outcome PlainChannel::PushData() {
    while (!data_.empty()) {
        const ssize_t count = ::send(socket_.native_handle(), data_.data(), data_.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN ? Outcome::Pending : Outcome::Failed;
        data_.remove_prefix(static_cast<std::size_t>(count));
        sent_ += static_cast<std::uint64_t>(count);
    }
    return Outcome::Done;
}

Channel::Outcome PlainChannel::PushFile() {
    for (int piece = 0; fileLeft_ > 0; ++piece) {
        if (piece == kPiecesPerTurn) return Outcome::Pending;
        auto offset = static_cast<off_t>(fileOffset_);
        const ssize_t count =
            ::sendfile(socket_.native_handle(), file_, &offset, std::min(fileLeft_, kPieceBytes));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN ? Outcome::Pending : Outcome::Failed;
        if (count == 0) return Outcome::Failed;  // the file has become shorter than was announced
        fileOffset_ += static_cast<std::uint64_t>(count);
        fileLeft_ -= static_cast<std::uint64_t>(count);
        KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Http)
            .bytes.Add(static_cast<std::uint64_t>(count));
        sent_ += static_cast<std::uint64_t>(count);
    }
    return Outcome::Done;
}

void PlainChannel::ContinueWhenWritable(Outcome (PlainChannel::*push)(), const User& user) {
    socket_.async_wait(boost::asio::socket_base::wait_write,
                       [this, push, user](const boost::system::error_code& error) {
                           if (error || !socket_.is_open()) return user->OnWritten(false);
                           const Outcome outcome = (this->*push)();
                           if (outcome == Outcome::Pending) return ContinueWhenWritable(push, user);
                           user->OnWritten(outcome == Outcome::Done);
                       });
}

std::uint64_t PlainChannel::BytesTaken() {
    return sent_ - UnacknowledgedBytes(socket_.native_handle());
}

void PlainChannel::ShutdownSend() {
    boost::system::error_code ignored;
    socket_.shutdown(boost::asio::socket_base::shutdown_send, ignored);
}

void PlainChannel::Close() {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace kelhttp

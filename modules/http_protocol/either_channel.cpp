#include "modules/http_protocol/either_channel.h"

#include <sys/socket.h>

#include <exception>
#include <utility>

#include "modules/http_protocol/plain_channel.h"
#include "modules/http_protocol/tls_channel.h"

namespace kelhttp {
namespace {

/// The type of a TLS record with a handshake message (RFC 8446, section 5.1); no HTTP method begins with it.
constexpr char kHandshakeRecord = 22;

}  // namespace

void EitherChannel::Open(const User& user) {
    socket_.async_wait(boost::asio::socket_base::wait_read,
                       [this, user](const boost::system::error_code& error) {
                           char first = 0;
                           if (error || !socket_.is_open() ||
                               ::recv(socket_.native_handle(), &first, 1, MSG_PEEK | MSG_DONTWAIT) != 1)
                               return user->OnOpened(false);
                           if (!Choose(first == kHandshakeRecord)) return user->OnOpened(false);
                           chosen_->Open(user);
                       });
}

/// False when the system does not take the settings of the socket.
bool EitherChannel::Choose(bool isTls) {
    try {
        if (isTls)
            chosen_ = std::make_unique<TlsChannel>(std::move(socket_), *context_->native_handle(), keys_);
        else
            chosen_ = std::make_unique<PlainChannel>(std::move(socket_), KelPeer::Proof::Password);
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

void EitherChannel::ShutdownSend() {
    if (chosen_) return chosen_->ShutdownSend();
    boost::system::error_code ignored;
    socket_.shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

void EitherChannel::Close() {
    if (chosen_) return chosen_->Close();
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace kelhttp

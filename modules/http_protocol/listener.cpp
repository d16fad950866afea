#include "modules/http_protocol/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstring>

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace kelhttp {
namespace {

constexpr int kBacklog = 4096;
/// Connections accepted in one go, before other members of the loop get their turn.
constexpr int kAcceptsPerTurn = 64;

/// Close-on-exec: a program started by the agent that outlives it would otherwise hold the port.
void OpenSocket(boost::asio::ip::tcp::acceptor& acceptor, boost::system::error_code& error) {
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) {
        error.assign(errno, boost::system::system_category());
        return;
    }
    acceptor.assign(boost::asio::ip::tcp::v4(), socket.Get(), error);
    if (!error) socket.Release();
}

}  // namespace

Listener::Listener(IoLoop& loop, const KelDebug& log, Accept accept)
    : acceptor_(loop.Context()), loop_(loop), log_(log), accept_(std::move(accept)) {}

KelStatus Listener::Bind(const KelString& address, std::uint16_t port) {
    namespace ip = boost::asio::ip;
    boost::system::error_code error;
    ip::address_v4 local = ip::address_v4::any();
    if (!address.empty()) local = ip::make_address_v4(address, error);
    if (!error) OpenSocket(acceptor_, error);
    if (!error) acceptor_.set_option(ip::tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor_.bind({local, port}, error);
    if (!error) acceptor_.non_blocking(true, error);
    if (!error) port_ = acceptor_.local_endpoint(error).port();
    if (error)
        return KelError{kKelErrorBadInput,
                        KelFormat("cannot bind to %S:%u: %S; check Address and Port", address,
                                  static_cast<unsigned int>(port), error.message())};
    return {};
}

KelStatus Listener::Listen() {
    boost::system::error_code error;
    acceptor_.listen(kBacklog, error);
    if (!error) return {};
    return KelError{kKelErrorBadInput,
                    KelFormat("cannot listen on port %u: %S; another program may have taken it",
                              static_cast<unsigned int>(port_), error.message())};
}

void Listener::Start() {
    loop_.Add(shared_from_this());
    Wait();
}

void Listener::Wait() {
    acceptor_.async_wait(boost::asio::socket_base::wait_read,
                         [self = shared_from_this()](const boost::system::error_code& error) {
                             if (error || !self->acceptor_.is_open()) return;
                             if (self->AcceptSome()) self->Wait();
                         });
}

/// False when descriptors have run out: OnTick resumes.
bool Listener::AcceptSome() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        UniqueFd socket(::accept4(acceptor_.native_handle(), reinterpret_cast<sockaddr*>(&peer), &length,
                                  SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            accept_(std::move(socket), IpAddress(ntohl(peer.sin_addr.s_addr)));
            continue;
        }
        if (errno == EAGAIN) return true;
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) continue;
        if (!std::exchange(logged_, true))
            log_.Error("Cannot accept connections: %s. Raise the limit of open files.\n",
                       std::strerror(errno));
        paused_ = true;
        return false;
    }
    return true;
}

void Listener::OnTick(Clock::time_point /*now*/) {
    if (std::exchange(paused_, false)) Wait();
}

void Listener::Abort() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
}

}  // namespace kelhttp

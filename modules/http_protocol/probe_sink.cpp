#include "modules/http_protocol/probe_sink.h"

#include <sys/socket.h>
#include <cerrno>

namespace kelhttp {
namespace {

constexpr std::chrono::seconds kLongestProbe{30};

}  // namespace

ProbeSink::ProbeSink(IoLoop& loop, boost::asio::ip::tcp::socket socket, PeerTable::Place place)
    : loop_(loop), socket_(std::move(socket)), place_(std::move(place)), started_(Clock::now()) {}

ProbeSink::~ProbeSink() {
    Abort();
}

void ProbeSink::Start() {
    loop_.Add(shared_from_this());
    Wait();
}

void ProbeSink::Wait() {
    socket_.async_wait(boost::asio::socket_base::wait_read,
                       [self = shared_from_this()](const boost::system::error_code& error) {
                           if (error || self->closed_) return;
                           // MSG_TRUNC: TCP drops the bytes without copying them.
                           const ssize_t count = ::recv(self->socket_.native_handle(), nullptr, 1 << 20,
                                                        MSG_TRUNC | MSG_DONTWAIT);
                           if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
                               return self->Abort();
                           self->Wait();
                       });
}

void ProbeSink::OnTick(Clock::time_point now) {
    if (now - started_ > kLongestProbe) Abort();
}

void ProbeSink::Abort() {
    if (std::exchange(closed_, true)) return;
    boost::system::error_code ignored;
    socket_.close(ignored);
    place_.reset();
    loop_.Remove(this);
}

}  // namespace kelhttp

#include "modules/http_protocol/local_listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/local_socket.h"

namespace kelhttp {
namespace {

constexpr int kBacklog = 128;
constexpr int kAcceptsPerTurn = 16;
/// The socket gets its name when it listens and is closed to others, not before.
constexpr const char* kUnfinishedName = ".agent.sock";

bool BindTo(const UniqueFd& socket, const KelString& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return false;
    path.copy(address.sun_path, path.size());
    return ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool Make(const UniqueFd& socket, const KelString& folder) {
    if (!socket || !PathCreate(folder) || ::chmod(folder.c_str(), 0700) != 0) return false;
    const KelSocketPath place(folder, kUnfinishedName);
    if (place.Text().empty()) return false;
    ::unlink(place.Text().c_str());
    return BindTo(socket, place.Text()) && ::chmod(place.Text().c_str(), 0600) == 0 &&
           ::listen(socket.Get(), kBacklog) == 0 &&
           ::renameat(place.Folder(), kUnfinishedName, place.Folder(), kAgentSocketName) == 0;
}

/// True for a process of the agent's user or of root.
bool IsOwner(const UniqueFd& socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return ::getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

}  // namespace

LocalListener::LocalListener(IoLoop& loop, const KelDebug& log, Accept accept)
    : socket_(loop.Context()), loop_(loop), log_(log), accept_(std::move(accept)) {}

LocalListener::~LocalListener() {
    if (!path_.empty()) ::unlink(path_.c_str());
}

KelStatus LocalListener::Listen(const KelString& folder) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!Make(socket, folder))
        return KelError{kKelErrorInternal, KelFormat("cannot make the socket %S/%s: %s", folder,
                                                     kAgentSocketName, std::strerror(errno))};
    path_ = folder + "/" + kAgentSocketName;
    socket_.assign(socket.Release());
    return {};
}

void LocalListener::Start() {
    loop_.Add(shared_from_this());
    Wait();
}

void LocalListener::Wait() {
    socket_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                       [self = shared_from_this()](const boost::system::error_code& error) {
                           if (error || !self->socket_.is_open()) return;
                           if (self->AcceptSome()) self->Wait();
                       });
}

/// False when descriptors have run out: OnTick resumes.
bool LocalListener::AcceptSome() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        UniqueFd socket(::accept4(socket_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket && IsOwner(socket)) {
            accept_(std::move(socket));
        } else if (socket) {
            log_.Warning("A connection of another user to %S was refused.\n", path_);
        } else if (errno == EAGAIN) {
            return true;
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            paused_ = true;
            return false;
        }
    }
    return true;
}

void LocalListener::OnTick(Clock::time_point /*now*/) {
    if (std::exchange(paused_, false)) Wait();
}

void LocalListener::Abort() {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace kelhttp

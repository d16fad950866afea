#pragma once

#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>
#include <memory>

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/io_loop.h"

namespace kelhttp {

/// Listens on the agent's own socket (kelcore/local_socket.h), which only the agent's user and root can
/// connect to. Bind and Listen are called before the loop starts; the rest runs on its thread.
class LocalListener final : public LoopMember, public std::enable_shared_from_this<LocalListener> {
  public:
    /// Receives each connection; on the listener's loop.
    using Accept = std::function<void(UniqueFd socket)>;

    LocalListener(IoLoop& loop, const KelDebug& log, Accept accept);
    /// Removes the socket.
    ~LocalListener() override;

    /// Makes the socket in `folder`, which is created when missing and closed to other users. Replaces a
    /// socket that a killed agent has left: the lock on the root folder allows one agent only.
    KelStatus Listen(const KelString& folder);

    void Start();

    void OnTick(Clock::time_point now) override;
    void Abort() override;

  private:
    void Wait();
    bool AcceptSome();

    boost::asio::posix::stream_descriptor socket_;
    IoLoop& loop_;
    const KelDebug& log_;
    Accept accept_;
    KelString path_;       ///< once it is there
    bool paused_ = false;  ///< out of descriptors: waits for the next tick
};

}  // namespace kelhttp

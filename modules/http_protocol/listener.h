#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "kel/debug.h"
#include "kel/ip_address.h"
#include "kel/result.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/io_loop.h"

namespace kelhttp {

/// A listening socket on a loop. Bind and Listen are called before the loop starts; the rest runs on its
/// thread.
class Listener final : public LoopMember, public std::enable_shared_from_this<Listener> {
  public:
    /// Receives each connection; on the listener's loop.
    using Accept = std::function<void(UniqueFd socket, IpAddress peer)>;

    Listener(IoLoop& loop, const KelDebug& log, Accept accept);

    /// Binds to a dotted address (empty: all) and port (0: any).
    KelStatus Bind(const KelString& address, std::uint16_t port);
    std::uint16_t Port() const { return port_; }

    /// Connections queue up from this call on. Before the loop starts.
    KelStatus Listen();

    /// Accepts until the loop ends.
    void Start();

    void OnTick(Clock::time_point now) override;
    void Abort() override;

  private:
    void Wait();
    bool AcceptSome();

    boost::asio::ip::tcp::acceptor acceptor_;
    IoLoop& loop_;
    const KelDebug& log_;
    Accept accept_;
    std::uint16_t port_ = 0;
    bool paused_ = false;  ///< out of descriptors: waits for the next tick
    bool logged_ = false;  ///< the shortage has been logged
};

}  // namespace kelhttp

#pragma once

#include <cstdint>
#include <memory>

#include "kel/debug.h"
#include "kel/result.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/settings.h"

class KelMetricsPage;

namespace kelhttp {

/// The HTTP server. Open, then Run, then Stop, each once and from one thread; the counts may be read from any
/// thread in between and afterwards.
class Server {
  public:
    Server(ServerSettings settings, AliasTable& aliases, const KelDebug& log);
    /// Stops, and waits for actions that still run.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds the sockets, so that the ports are known; nothing is accepted yet.
    KelStatus Open();

    /// Starts the threads and accepts connections. An error, with nothing started, when a port cannot be
    /// listened on because another program that bound it too was faster.
    KelStatus Run();

    /// Ends every connection, including transfers in progress, within 2 seconds. The destructor waits for
    /// actions that still run then.
    void Stop();

    std::uint16_t Port() const;           ///< the port bound, 0 before Open
    std::uint16_t SslPort() const;        ///< 0: none
    std::uint16_t BandwidthPort() const;  ///< 0: none

    /// Clients with long requests in progress.
    std::size_t CountWorkingPeers() const;
    std::size_t CountConnections() const;

    /// Adds connections and answers to the page.
    void CollectMetrics(KelMetricsPage& page) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kelhttp

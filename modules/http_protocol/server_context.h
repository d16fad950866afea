#pragma once

#include <algorithm>

#include "kel/debug.h"
#include "kelcore/failure_log.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/digest_auth.h"
#include "modules/http_protocol/guess_limit.h"
#include "modules/http_protocol/peer_table.h"
#include "modules/http_protocol/response_status.h"
#include "modules/http_protocol/settings.h"
#include "modules/http_protocol/worker_pool.h"

namespace kelhttp {

/// The state that all connections of a server share; every part may be used from any thread. Its destructor
/// waits for the tasks that still run.
struct ServerContext {
    ServerContext(ServerSettings values, AliasTable& aliasTable, const KelDebug& debug)
        : settings(std::move(values)),
          aliases(aliasTable),
          log(debug),
          auth(settings.userName, TreePasswords(), settings.nonceLifetime),
          peers(LimitsFrom(settings)),
          actions(static_cast<std::size_t>(settings.workers), static_cast<std::size_t>(settings.workerQueue)),
          // A connection has at most one task here, so none is ever turned away.
          files(static_cast<std::size_t>(settings.fileWorkers),
                static_cast<std::size_t>(settings.maxConnections)) {}

    const ServerSettings settings;
    AliasTable& aliases;
    const KelDebug& log;
    const DigestAuth auth;
    PeerTable peers;
    ResponseCounters responses;
    GuessLimit guesses;
    KelFailureLog failures{log};
    WorkerPool actions;  ///< action calls
    WorkerPool files;    ///< the disk's part of uploads, with the event at their end

  private:
    static PeerLimits LimitsFrom(const ServerSettings& settings) {
        const auto all = static_cast<std::size_t>(settings.maxConnections);
        // Strangers of known and of unknown addresses take a quarter of all places each, at most.
        const auto strangers = std::min(static_cast<std::size_t>(settings.maxUnauthenticated), all / 4 + 1);
        return {all, static_cast<std::size_t>(settings.maxConnectionsPerAddress), strangers,
                static_cast<std::size_t>(settings.maxUnauthenticatedPerAddress),
                IpAddress::Parse(settings.address).value_or(IpAddress())};
    }
};

}  // namespace kelhttp

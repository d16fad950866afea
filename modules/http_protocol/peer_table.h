#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "kel/ip_address.h"
#include "kel/mutex.h"

namespace kelhttp {

/// Counts connections in all and per peer address, and which peers have work in progress. Any thread.
class PeerTable {
  public:
    PeerTable(std::size_t limit, std::size_t limitPerAddress)
        : limit_(limit), limitPerAddress_(limitPerAddress) {}

    /// Counts a new connection; false when a limit is reached.
    bool Admit(IpAddress peer);
    /// Ends the count of a connection that was admitted.
    void Release(IpAddress peer);

    /// A long request begins or ends: an action, an upload, or a download that does not fit the socket's
    /// buffer at once.
    void BeginWork(IpAddress peer);
    void EndWork(IpAddress peer);

    std::size_t CountConnections() const;
    /// The number of addresses with long requests in progress.
    std::size_t CountWorkingPeers() const;

  private:
    struct Peer {
        std::size_t connections = 0;
        std::size_t working = 0;
    };

    mutable KelMutex mutex_;
    std::unordered_map<std::uint32_t, Peer> peers_ KEL_GUARDED_BY(mutex_);  ///< by address
    std::size_t total_ KEL_GUARDED_BY(mutex_) = 0;
    std::size_t workingPeers_ KEL_GUARDED_BY(mutex_) = 0;
    const std::size_t limit_;
    const std::size_t limitPerAddress_;
};

}  // namespace kelhttp

#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "kel/ip_address.h"

namespace kelhttp {

/// Counts connections in all and per peer address, and which peers have work in progress. Any thread.
class PeerTable {
  public:
    PeerTable(std::size_t limit, std::size_t limitPerAddress)
        : limit_(limit), limitPerAddress_(limitPerAddress) {}

    /// Enters a connection; false when a limit is reached.
    bool Admit(IpAddress peer);
    /// Takes out a connection that was admitted.
    void Release(IpAddress peer);

    /// A lasting request (an action, an upload, a download that did not fit the socket at once) begins or
    /// ends.
    void BeginWork(IpAddress peer);
    void EndWork(IpAddress peer);

    std::size_t CountConnections() const;
    /// The number of addresses with lasting requests in progress.
    std::size_t CountWorkingPeers() const;

  private:
    struct Peer {
        std::size_t connections = 0;
        std::size_t working = 0;
    };

    mutable std::mutex mutex_;
    std::unordered_map<std::uint32_t, Peer> peers_;
    std::size_t total_ = 0;
    std::size_t workingPeers_ = 0;
    const std::size_t limit_;
    const std::size_t limitPerAddress_;
};

}  // namespace kelhttp

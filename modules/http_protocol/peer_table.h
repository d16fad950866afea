#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kelcore/metrics/metrics_page.h"

namespace kelhttp {

/// How many connections there may be. A connection is a stranger until a request on it had valid credentials.
struct PeerLimits {
    std::size_t all = 0;
    std::size_t perAddress = 0;  ///< not counting strangers
    std::size_t strangers = 0;   ///< of known and of unknown addresses, each
    std::size_t strangersPerAddress = 0;
    IpAddress own;  ///< of this device, besides the loopback address
};

/// Decides which connections the server keeps, and which peers have work in progress. Any thread.
///
/// Strangers must not keep others out. When there are too many, of one address or in all, the oldest one is
/// closed, as an honest client proves itself within two round trips and so is never the oldest for long; a
/// relay's children behind one address come and go through it as fast as they like. Addresses that had valid
/// credentials lately are counted apart from all others, so that a flood from elsewhere does not touch them,
/// and so is this device itself, for which there are places beyond the limit of all. The peers of the agent's
/// own socket have the empty address.
class PeerTable {
  public:
    explicit PeerTable(PeerLimits limits) : limits_(limits) {}

    class Slot;
    /// A connection that is counted for as long as this exists; empty: none.
    using Place = std::shared_ptr<Slot>;

    /// Counts a new connection, perhaps after one of the strangers was closed for it. Empty when there is no
    /// place.
    Place Admit(IpAddress peer);

    /// How to close the connection, from any thread. False when that has been decided already.
    bool SetClose(const Place& place, std::function<void()> close);

    /// A request on the connection had valid credentials: it is no stranger any more. False when its address
    /// has too many connections.
    bool Authenticated(const Place& place);

    /// True when a connection from there had valid credentials lately, or the address is this device's.
    bool IsKnown(IpAddress peer) const;

    /// A long request begins or ends: an action, an upload, or a download that does not fit the socket's
    /// buffer at once.
    void BeginWork(IpAddress peer);
    void EndWork(IpAddress peer);

    std::size_t CountConnections() const;
    /// The number of addresses with long requests in progress.
    std::size_t CountWorkingPeers() const;
    /// Adds these and the numbers of connections by what became of them to the page.
    void Collect(KelMetricsPage& page) const;

  private:
    enum Kind : unsigned char { kUnknown, kKnown, kOwn, kKinds };
    using Slots = std::list<Slot*>;  ///< the oldest first

    struct Peer {
        std::size_t connections = 0;
        std::size_t authenticated = 0;
        std::size_t working = 0;
        Slots strangers;
    };

    void Release(Slot& slot);
    Kind KindOf(IpAddress peer) const KEL_REQUIRES(mutex_);
    std::size_t CountKept() const KEL_REQUIRES(mutex_);
    std::function<void()> Evict(Slot& slot) KEL_REQUIRES(mutex_);
    Slot* ChooseVictim(Kind kind, const Peer& peer) const KEL_REQUIRES(mutex_);
    void RemoveStranger(Slot& slot) KEL_REQUIRES(mutex_);
    void Remember(IpAddress peer) KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;
    std::unordered_map<std::uint32_t, Peer> peers_ KEL_GUARDED_BY(mutex_);  ///< by address
    std::array<Slots, kKinds> strangers_ KEL_GUARDED_BY(mutex_);
    /// Addresses that had valid credentials, the latest first, and where each of them is in the list.
    std::list<std::uint32_t> latest_ KEL_GUARDED_BY(mutex_);
    std::unordered_map<std::uint32_t, std::list<std::uint32_t>::iterator> known_ KEL_GUARDED_BY(mutex_);
    std::size_t total_ KEL_GUARDED_BY(mutex_) = 0;
    std::size_t evicted_ KEL_GUARDED_BY(mutex_) = 0;  ///< of them, those that are about to close
    std::size_t workingPeers_ KEL_GUARDED_BY(mutex_) = 0;
    const PeerLimits limits_;
    KelCounter admittedCount_, evictedCount_, refusedCount_;
};

class PeerTable::Slot {
  public:
    Slot(PeerTable& table, IpAddress peer, Kind kind) : table_(table), peer_(peer), kind_(kind) {}
    ~Slot() { table_.Release(*this); }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    IpAddress Peer() const { return peer_; }

  private:
    friend class PeerTable;
    enum class State : unsigned char { Stranger, Authenticated, Evicted };

    PeerTable& table_;
    const IpAddress peer_;
    // Under the table's mutex.
    const Kind kind_;
    State state_ = State::Stranger;
    Slots::iterator inKind_, inPeer_;  ///< of a stranger
    std::function<void()> close_;
};

}  // namespace kelhttp

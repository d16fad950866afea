#include "modules/http_protocol/peer_table.h"

namespace kelhttp {
namespace {

using MetricKind = KelMetric::Kind;
constexpr KelMetric kConnections(MetricKind::Gauge, "kel_http_connections",
                                 "Open connections, by whether valid credentials have come on them.");
constexpr KelMetric kAccepted(MetricKind::Counter, "kel_http_connections_accepted_total",
                              "Connections that got a place.");
constexpr KelMetric kRefused(
    MetricKind::Counter, "kel_http_connections_refused_total",
    "Connections closed because there were too many: new ones for which there was no "
    "place, and those without valid credentials that made way for others.");
constexpr KelMetric kWorking(MetricKind::Gauge, "kel_http_working_peers",
                             "Addresses with calls, uploads or downloads in progress.");

constexpr std::uint32_t kLoopback = 0x7F000001;
/// Addresses with valid credentials that are remembered.
constexpr std::size_t kMaxKnown = 20'000;
/// Connections of this device itself beyond the limit of all.
constexpr std::size_t kOwnReserve = 64;

}  // namespace

PeerTable::Place PeerTable::Admit(IpAddress peer) {
    std::function<void()> close;
    Place place;
    {
        const KelLock lock(mutex_);
        const Kind kind = KindOf(peer);
        Peer& entry = peers_[peer.Value()];
        if (Slot* const victim = ChooseVictim(kind, entry)) close = Evict(*victim);
        if (CountKept() < limits_.all + (kind == kOwn ? kOwnReserve : 0)) {
            place = std::make_shared<Slot>(*this, peer, kind);
            place->inKind_ = strangers_[kind].insert(strangers_[kind].end(), place.get());
            place->inPeer_ = entry.strangers.insert(entry.strangers.end(), place.get());
            ++entry.connections;
            ++total_;
            admittedCount_.Add();
        } else if (entry.connections == 0) {
            peers_.erase(peer.Value());
        }
    }
    if (!place) refusedCount_.Add();
    if (close) close();
    return place;
}

/// The stranger that makes way for another one of this kind and address; null when there is room.
PeerTable::Slot* PeerTable::ChooseVictim(Kind kind, const Peer& peer) const {
    if (peer.strangers.size() >= limits_.strangersPerAddress && !peer.strangers.empty())
        return peer.strangers.front();
    if (kind != kOwn && strangers_[kind].size() >= limits_.strangers && !strangers_[kind].empty())
        return strangers_[kind].front();
    if (CountKept() < limits_.all) return nullptr;
    for (const Kind other : {kUnknown, kKnown})
        if (!strangers_[other].empty()) return strangers_[other].front();
    return nullptr;
}

std::function<void()> PeerTable::Evict(Slot& slot) {
    RemoveStranger(slot);
    slot.state_ = Slot::State::Evicted;
    ++evicted_;
    evictedCount_.Add();
    return std::exchange(slot.close_, nullptr);
}

void PeerTable::RemoveStranger(Slot& slot) {
    strangers_[slot.kind_].erase(slot.inKind_);
    peers_[slot.peer_.Value()].strangers.erase(slot.inPeer_);
}

bool PeerTable::SetClose(const Place& place, std::function<void()> close) {
    const KelLock lock(mutex_);
    if (place->state_ == Slot::State::Evicted) return false;
    place->close_ = std::move(close);
    return true;
}

bool PeerTable::Authenticated(const Place& place) {
    const KelLock lock(mutex_);
    if (place->state_ != Slot::State::Stranger) return place->state_ == Slot::State::Authenticated;
    Remember(place->peer_);
    Peer& entry = peers_[place->peer_.Value()];
    if (entry.authenticated >= limits_.perAddress) return false;
    RemoveStranger(*place);
    place->state_ = Slot::State::Authenticated;
    ++entry.authenticated;
    return true;
}

void PeerTable::Release(Slot& slot) {
    const KelLock lock(mutex_);
    Peer& entry = peers_[slot.peer_.Value()];
    switch (slot.state_) {
        case Slot::State::Stranger:
            RemoveStranger(slot);
            break;
        case Slot::State::Authenticated:
            --entry.authenticated;
            break;
        case Slot::State::Evicted:
            --evicted_;
            break;
    }
    --total_;
    if (--entry.connections == 0) peers_.erase(slot.peer_.Value());
}

void PeerTable::Remember(IpAddress peer) {
    if (const auto found = known_.find(peer.Value()); found != known_.end()) {
        latest_.splice(latest_.begin(), latest_, found->second);
        return;
    }
    if (known_.size() >= kMaxKnown) {
        known_.erase(latest_.back());
        latest_.pop_back();
    }
    latest_.push_front(peer.Value());
    known_[peer.Value()] = latest_.begin();
}

PeerTable::Kind PeerTable::KindOf(IpAddress peer) const {
    if (peer == IpAddress() || peer.Value() == kLoopback || peer == limits_.own) return kOwn;
    return known_.contains(peer.Value()) ? kKnown : kUnknown;
}

std::size_t PeerTable::CountKept() const {
    return total_ - evicted_;
}

bool PeerTable::IsKnown(IpAddress peer) const {
    const KelLock lock(mutex_);
    return KindOf(peer) != kUnknown;
}

void PeerTable::BeginWork(IpAddress peer) {
    const KelLock lock(mutex_);
    if (peers_[peer.Value()].working++ == 0) ++workingPeers_;
}

void PeerTable::EndWork(IpAddress peer) {
    const KelLock lock(mutex_);
    if (--peers_[peer.Value()].working == 0) --workingPeers_;
}

std::size_t PeerTable::CountConnections() const {
    const KelLock lock(mutex_);
    return total_;
}

void PeerTable::Collect(KelMetricsPage& page) const {
    std::size_t strangers = 0, kept = 0, working = 0;
    {
        const KelLock lock(mutex_);
        for (const Slots& slots : strangers_)
            strangers += slots.size();
        kept = CountKept();
        working = workingPeers_;
    }
    page.Add(kConnections, {{"state", "authenticated"}}, static_cast<double>(kept - strangers));
    page.Add(kConnections, {{"state", "unauthenticated"}}, static_cast<double>(strangers));
    page.Add(kAccepted, {}, admittedCount_);
    page.Add(kRefused, {{"reason", "no_place"}}, refusedCount_);
    page.Add(kRefused, {{"reason", "made_way"}}, evictedCount_);
    page.Add(kWorking, static_cast<double>(working));
}

std::size_t PeerTable::CountWorkingPeers() const {
    const KelLock lock(mutex_);
    return workingPeers_;
}

}  // namespace kelhttp

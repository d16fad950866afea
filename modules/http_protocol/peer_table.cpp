#include "modules/http_protocol/peer_table.h"

namespace kelhttp {

bool PeerTable::Admit(IpAddress peer) {
    const KelLock lock(mutex_);
    if (total_ >= limit_) return false;
    Peer& entry = peers_[peer.Value()];
    if (entry.connections >= limitPerAddress_) return false;
    ++entry.connections;
    ++total_;
    return true;
}

void PeerTable::Release(IpAddress peer) {
    const KelLock lock(mutex_);
    const auto found = peers_.find(peer.Value());
    if (found == peers_.end()) return;
    --total_;
    if (--found->second.connections == 0) peers_.erase(found);
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

std::size_t PeerTable::CountWorkingPeers() const {
    const KelLock lock(mutex_);
    return workingPeers_;
}

}  // namespace kelhttp

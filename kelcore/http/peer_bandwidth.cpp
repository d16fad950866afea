#include "kelcore/http/peer_bandwidth.h"

#include <algorithm>

#include "kelcore/agent.h"
#include "kelcore/http/bandwidth_manager.h"

namespace {

constexpr auto kRetryAfter = std::chrono::seconds(60);          ///< when the peer did not answer
constexpr std::uint64_t kMostBytesPerSecond = 125'000'000'000;  ///< keeps products of rates below 2^64

}  // namespace

void HttpPeerBandwidth::Peer::Count(HttpBandwidthManager& manager, Clock::time_point now) {
    unsigned int count = 0;
    unsigned int bwPort = 0;
    unsigned long countMicroseconds = 0;
    unsigned long probeMicroseconds = 0;
    unsigned int duration = 0;
    nextCount = now + kRetryAfter;
    if (!manager.GetClientCount(!isKnown, count, bwPort, countMicroseconds, probeMicroseconds, duration))
        return;
    values.clientCount = count;
    if (!isKnown) {
        isKnown = true;
        port = bwPort;
        pingDuration = duration;
        countEvery = std::chrono::microseconds(countMicroseconds);
        probeEvery = std::chrono::microseconds(probeMicroseconds);
    }
    if (countEvery > Clock::duration::zero()) nextCount = now + countEvery;
}

void HttpPeerBandwidth::Peer::Probe(HttpBandwidthManager& manager, IpAddress address, Clock::time_point now) {
    const std::uint64_t bytes = manager.BandwidthEstimationTCP(address, port, pingDuration);
    nextProbe = now + kRetryAfter;
    if (bytes == 0) return;
    values.bitsPerSecond = std::min(bytes, kMostBytesPerSecond) * 8;
    values.isMeasured = true;
    nextProbe = probeEvery > Clock::duration::zero() ? now + probeEvery : Clock::time_point::max();
}

HttpPeerBandwidth::Values HttpPeerBandwidth::Measure(HttpBandwidthManager& manager, IpAddress peer,
                                                     Clock::time_point now) {
    Peer measured;
    bool isFirst = false;
    {
        const KelLock lock(mutex_);
        Entry& entry = entries_[peer];
        while (entry.isBeingMeasured && !entry.isReady)
            measured_.wait(mutex_);
        if (entry.isBeingMeasured || !entry.peer.IsDue(now)) return entry.peer.values;
        entry.isBeingMeasured = true;
        isFirst = !entry.isReady;
        measured = entry.peer;
    }
    if (now >= measured.nextCount) measured.Count(manager, now);
    if (measured.IsProbeDue(now)) measured.Probe(manager, peer, now);
    if (isFirst && !measured.values.isMeasured)
        CoreLog().Print("The bandwidth to %S is not measured%s; relative rates assume %gu Mbit/s\n",
                        peer.ToText(),
                        measured.isKnown && measured.port == 0 ? ", because its BwPort is 0" : "",
                        kAssumedBitsPerSecond / 1'000'000);
    const KelLock lock(mutex_);
    Entry& entry = entries_[peer];
    entry = {measured, false, true};
    latest_ = peer;
    measured_.notify_all();
    return measured.values;
}

bool HttpPeerBandwidth::GetLatest(Values& values) const {
    const KelLock lock(mutex_);
    const auto entry = entries_.find(latest_);
    if (entry == entries_.end() || !entry->second.isReady) return false;
    values = entry->second.peer.values;
    return true;
}

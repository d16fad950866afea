#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>

#include "kel/ip_address.h"
#include "kel/mutex.h"

class HttpBandwidthManager;

/// What the relative rates of a bandwidth manager are shares of: the bandwidth to its peers and how many
/// share it. Both are measured when they are first needed and again at the frequencies that the peer gives,
/// for all transmissions together. Any thread. A measurement blocks on the network; meanwhile others get the
/// values of the one before, and wait only for the first.
class HttpPeerBandwidth {
  public:
    using Clock = std::chrono::steady_clock;

    /// Counts for a peer that offers no probe or has never answered one.
    static constexpr std::uint64_t kAssumedBitsPerSecond = 10'000'000;

    struct Values {
        std::uint64_t bitsPerSecond = kAssumedBitsPerSecond;
        bool isMeasured = false;       ///< false: assumed
        unsigned int clientCount = 0;  ///< as the peer tells; 0: unknown
    };
    Values Measure(HttpBandwidthManager& manager, IpAddress peer, Clock::time_point now);

    /// The values of the peer that was measured last; false when there is none.
    bool GetLatest(Values& values) const;

  private:
    struct Peer {
        Values values;
        bool isKnown = false;           ///< the peer has reported its frequencies
        unsigned int port = 0;          ///< 0: the peer offers no probe
        unsigned int pingDuration = 0;  ///< of a probe, in milliseconds
        Clock::duration countEvery{};
        Clock::duration probeEvery{};  ///< 0: probe once
        Clock::time_point nextCount{};
        Clock::time_point nextProbe{};

        bool IsDue(Clock::time_point now) const { return now >= nextCount || IsProbeDue(now); }
        bool IsProbeDue(Clock::time_point now) const { return isKnown && port != 0 && now >= nextProbe; }
        void Count(HttpBandwidthManager& manager, Clock::time_point now);
        void Probe(HttpBandwidthManager& manager, IpAddress address, Clock::time_point now);
    };
    struct Entry {
        Peer peer;
        bool isBeingMeasured = false;
        bool isReady = false;  ///< measured at least once
    };

    mutable KelMutex mutex_;  ///< not held during a measurement
    std::condition_variable_any measured_;
    std::map<IpAddress, Entry> entries_ KEL_GUARDED_BY(mutex_);
    IpAddress latest_ KEL_GUARDED_BY(mutex_);
};

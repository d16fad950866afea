#pragma once

#include <chrono>
#include <map>
#include <optional>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "modules/wake_on_lan/magic_packet.h"

/// The packets that are to be repeated. Reads no clock: the time is an argument. Any thread.
class WakeSchedule {
  public:
    using Clock = std::chrono::steady_clock;

    /// Has `times` more packets sent to a card, the first one an `interval` after `now`. Replaces what was
    /// left to be sent to it. Beyond kMost cards nothing is repeated.
    void Repeat(const MacAddress& card, IpAddress host, unsigned int times, std::chrono::seconds interval,
                Clock::time_point now);

    struct Packet {
        MacAddress card;
        IpAddress host;
        bool operator==(const Packet&) const = default;
    };
    /// The packets that are due, one for each card also when more than one interval has passed.
    KelVector<Packet> TakeDue(Clock::time_point now);

    /// When the next one is due; nothing when there is none.
    std::optional<Clock::time_point> NextDue() const;

    static constexpr std::size_t kMost = 1000;

  private:
    struct Entry {
        IpAddress host;
        unsigned int left = 0;
        std::chrono::seconds interval{};
        Clock::time_point due;
    };

    mutable KelMutex mutex_;  ///< a leaf
    std::map<MacAddress, Entry> entries_ KEL_GUARDED_BY(mutex_);
};

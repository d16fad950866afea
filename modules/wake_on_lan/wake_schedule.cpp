#include "modules/wake_on_lan/wake_schedule.h"

#include <algorithm>

void WakeSchedule::Repeat(const MacAddress& card, IpAddress host, unsigned int times,
                          std::chrono::seconds interval, Clock::time_point now) {
    const KelLock lock(mutex_);
    entries_.erase(card);
    if (times > 0 && entries_.size() < kMost) entries_[card] = {host, times, interval, now + interval};
}

KelVector<WakeSchedule::Packet> WakeSchedule::TakeDue(Clock::time_point now) {
    KelVector<Packet> packets;
    const KelLock lock(mutex_);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        Entry& repeated = entry->second;
        if (repeated.due > now) {
            ++entry;
            continue;
        }
        packets.push_back({entry->first, repeated.host});
        repeated.due = now + repeated.interval;
        entry = --repeated.left == 0 ? entries_.erase(entry) : std::next(entry);
    }
    return packets;
}

std::optional<WakeSchedule::Clock::time_point> WakeSchedule::NextDue() const {
    const KelLock lock(mutex_);
    const auto next =
        std::ranges::min_element(entries_, {}, [](const auto& entry) { return entry.second.due; });
    return next == entries_.end() ? std::nullopt : std::optional(next->second.due);
}

#include "kelcore/http/rate_pacer.h"

#include <algorithm>

HttpRatePacer::Clock::duration HttpRatePacer::TimeFor(std::uint64_t bytes, std::uint64_t bitsPerSecond) {
    // A year is more than any caller waits and keeps every sum far from overflow.
    static constexpr double kMaxSeconds = 365.0 * 86400.0;
    const double seconds = static_cast<double>(bytes) * 8.0 / static_cast<double>(bitsPerSecond);
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, kMaxSeconds)));
}

void HttpRatePacer::Restart(Clock::time_point now) {
    bytes_ = 0;
    since_ = now;
}

void HttpRatePacer::SetRate(std::uint64_t bitsPerSecond, Clock::time_point now) {
    if (bitsPerSecond == rate_) return;
    if (rate_ == 0) {
        since_ = now;
    } else {
        const double unpaid = std::chrono::duration<double>(Remaining(now)).count();
        bytes_ = static_cast<std::uint64_t>(unpaid * static_cast<double>(rate_) / 8.0);
        since_ = now;
    }
    rate_ = bitsPerSecond;
}

void HttpRatePacer::Add(std::uint64_t bytes, Clock::time_point now) {
    Settle(bytes, now);
    bytes_ += bytes;
}

HttpRatePacer::Clock::duration HttpRatePacer::Remaining(Clock::time_point now) const {
    return std::max(since_ + TimeFor(bytes_, rate_) - now, Clock::duration::zero());
}

HttpRatePacer::Clock::duration HttpRatePacer::MaxCredit(std::uint64_t next) const {
    if (burst_ == 0) return kMaxCredit;
    return std::min(kMaxCredit, TimeFor(burst_ - std::min(next, burst_), rate_));
}

/// Before `next` bytes are added.
void HttpRatePacer::Settle(std::uint64_t next, Clock::time_point now) {
    if (rate_ == 0) return;
    const Clock::time_point paidUntil = since_ + TimeFor(bytes_, rate_);
    if (paidUntil > now) return;
    since_ = std::max(paidUntil, now - MaxCredit(next));
    bytes_ = 0;
}

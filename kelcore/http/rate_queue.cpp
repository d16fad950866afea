#include "kelcore/http/rate_queue.h"

#include <algorithm>

namespace {

using Seconds = std::chrono::duration<double>;

// A year is more than any caller waits, and fits every duration.
constexpr double kMostSeconds = 365.0 * 86400.0;

}  // namespace

double HttpRateQueue::PaidAt(Clock::time_point now) const {
    const double passed = std::max(Seconds(now - time_).count(), 0.0);
    const double most = static_cast<double>(added_) + bytesPerSecond_ * Seconds(kMostCredit).count();
    return std::min(paid_ + passed * bytesPerSecond_, most);
}

void HttpRateQueue::Join(Clock::time_point now) {
    const KelLock lock(mutex_);
    paid_ = PaidAt(now);
    if (running_++ == 0 && now - idleSince_ > kMostCredit)
        paid_ = std::min(paid_, static_cast<double>(added_));
    time_ = std::max(time_, now);
}

void HttpRateQueue::Leave(Clock::time_point now) {
    const KelLock lock(mutex_);
    if (--running_ == 0) idleSince_ = now;
}

void HttpRateQueue::SetRate(std::uint64_t bitsPerSecond, Clock::time_point now) {
    const KelLock lock(mutex_);
    paid_ = PaidAt(now);
    time_ = std::max(time_, now);
    bytesPerSecond_ = static_cast<double>(bitsPerSecond) / 8.0 * std::max(running_, 1U);
}

std::uint64_t HttpRateQueue::Add(std::uint64_t bytes, Clock::time_point now, std::uint64_t mostBurst) {
    const KelLock lock(mutex_);
    paid_ = PaidAt(now);
    if (mostBurst != 0)
        paid_ = std::min(paid_, static_cast<double>(added_ + mostBurst - std::min(bytes, mostBurst)));
    time_ = std::max(time_, now);
    added_ += bytes;
    return added_;
}

HttpRateQueue::Clock::duration HttpRateQueue::Remaining(std::uint64_t place, Clock::time_point now) const {
    const KelLock lock(mutex_);
    const double unpaid = static_cast<double>(place) - PaidAt(now);
    if (unpaid <= 0 || bytesPerSecond_ <= 0) return Clock::duration::zero();
    return std::chrono::duration_cast<Clock::duration>(
        Seconds(std::min(unpaid / bytesPerSecond_, kMostSeconds)));
}

void HttpRateQueue::Clear(Clock::time_point now) {
    const KelLock lock(mutex_);
    paid_ = static_cast<double>(added_);
    time_ = std::max(time_, now);
}

#include "kelcore/http/managed_transmission.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = HttpManagedTransmission::Clock;

constexpr auto kSlice = std::chrono::milliseconds(100);  ///< of sleep, and between readings of the rate
constexpr unsigned long kMaxRate = 1'000'000'000'000UL;  ///< keeps products below 2^64

}  // namespace

HttpManagedTransmission::HttpManagedTransmission(HttpBandwidthManager& manager) : manager_(manager) {}

HttpManagedTransmission::~HttpManagedTransmission() {
    End();
}

bool HttpManagedTransmission::Start() {
    if (started_) return true;
    if (manager_.StartTransmission() < 0) return false;
    started_ = true;
    nextRateRead_ = {};
    // Before anything is connected: a relative rate is measured, and the pieces depend on the rate.
    if (IsLimited()) ReadRate(Clock::now());
    pacer_.Restart(Clock::now());
    return true;
}

void HttpManagedTransmission::End() {
    if (!started_) return;
    started_ = false;
    if (sharesRelativeRate_) --manager_.relativeTransmissions;
    sharesRelativeRate_ = false;
    manager_.EndTransmission();
}

bool HttpManagedTransmission::Pass(std::uint64_t bytes, const std::function<bool()>& cancelled) {
    Clock::time_point now = Clock::now();
    if (!IsLimited()) {
        pacer_.Restart(now);
        return !cancelled || !cancelled();
    }
    if (!ReadRate(now)) return false;
    pacer_.Add(bytes, now);
    return Await(now, cancelled);
}

bool HttpManagedTransmission::PassAhead(std::uint64_t bytes, const std::function<bool()>& cancelled) {
    const Clock::time_point now = Clock::now();
    if (!IsLimited()) return Pass(0, cancelled);
    if (cancelled && cancelled()) return false;
    if (!ReadRate(now) || !Await(now, cancelled)) return false;
    pacer_.Add(bytes, Clock::now());
    return true;
}

/// Sleeps until all that was passed is paid.
bool HttpManagedTransmission::Await(Clock::time_point now, const std::function<bool()>& cancelled) {
    while (true) {
        const Clock::duration wait = pacer_.Remaining(now);
        if (wait <= Clock::duration::zero()) return true;
        if (cancelled && cancelled()) return false;
        std::this_thread::sleep_for(std::min<Clock::duration>(wait, kSlice));
        if (!IsLimited()) return true;
        now = Clock::now();
        if (!ReadRate(now)) return false;
    }
}

std::size_t HttpManagedTransmission::PieceBytes() const {
    static constexpr std::uint64_t kMost = std::uint64_t{256} << 10;
    const std::uint64_t second = std::max<std::uint64_t>(pacer_.BitsPerSecond() / 8, 1);
    return static_cast<std::size_t>(std::clamp(second / 20, std::min({frameBytes_, second, kMost}), kMost));
}

/// False when the window is closed. Reading the rate involves calendar arithmetic, which is too expensive to
/// do for every piece.
bool HttpManagedTransmission::ReadRate(Clock::time_point now) {
    if (now < nextRateRead_) return true;
    const std::uint64_t rate = BitsPerSecond(now);
    if (rate == 0) return false;
    pacer_.SetRate(rate, now);
    nextRateRead_ = now + kSlice;
    return true;
}

/// Counts this transmission among those that share a relative rate, from now on to its end.
void HttpManagedTransmission::ShareRelativeRate() {
    if (!sharesRelativeRate_) ++manager_.relativeTransmissions;
    sharesRelativeRate_ = true;
}

std::uint64_t HttpManagedTransmission::BitsPerSecond(Clock::time_point now) {
    int frameSize = 0;
    const std::uint64_t rate = std::min(manager_.GetRate(frameSize), kMaxRate);
    if (frameSize > 0) frameBytes_ = static_cast<std::uint64_t>(frameSize);
    if (rate == 0) return 0;
    if (!IsRelative()) return rate * 1000;
    ShareRelativeRate();
    if (peer_ == IpAddress() && findPeer_) peer_ = findPeer_().value_or(IpAddress());
    const auto measured = manager_.peerBandwidth.Measure(manager_, peer_, now);
    const std::uint64_t whole = manager_.IsPercentage() ? 100 : 1000;
    // The peer's count includes this device's transmissions, but is not up to date.
    const unsigned int sharers = std::max({1U, measured.clientCount, manager_.relativeTransmissions.load()});
    return std::max<std::uint64_t>(measured.bitsPerSecond * std::min(rate, whole) / whole / sharers, 1);
}

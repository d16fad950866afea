#include "kelcore/http/managed_transmission.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = HttpManagedTransmission::Clock;

constexpr auto kSlice = std::chrono::milliseconds(100);  ///< of sleep, and between readings of the rate
constexpr std::uint64_t kPartsPerSecond = 200;
constexpr std::uint64_t kLeastPart = 1000;               ///< bytes
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
    manager_.rateQueue.Join(Clock::now());
    // Before anything is connected: a relative rate is measured, and the pieces depend on the rate.
    if (IsLimited()) ReadRate(Clock::now());
    return true;
}

void HttpManagedTransmission::End() {
    if (!started_) return;
    started_ = false;
    if (sharesRelativeRate_) --manager_.relativeTransmissions;
    sharesRelativeRate_ = false;
    manager_.rateQueue.Leave(Clock::now());
    manager_.EndTransmission();
}

bool HttpManagedTransmission::Pass(std::uint64_t bytes, const std::function<bool()>& cancelled) {
    do {
        const Clock::time_point now = Clock::now();
        if (!IsLimited()) {
            manager_.rateQueue.Clear(now);
            return !cancelled || !cancelled();
        }
        if (!ReadRate(now)) return false;
        // One part in the queue at a time: transmissions with large pieces get no more than others.
        const std::uint64_t part =
            std::min(bytes, std::max(bitsPerSecond_ / 8 / kPartsPerSecond, kLeastPart));
        bytes -= part;
        if (!Await(manager_.rateQueue.Add(part, now), cancelled)) return false;
    } while (bytes > 0);
    return true;
}

void HttpManagedTransmission::Charge(std::uint64_t bytes) {
    if (IsLimited()) manager_.rateQueue.Add(bytes, Clock::now());
}

bool HttpManagedTransmission::PassAhead(std::uint64_t bytes, const std::function<bool()>& cancelled) {
    if (!IsLimited()) return Pass(0, cancelled);
    if (cancelled && cancelled()) return false;
    if (!ReadRate(Clock::now()) || !Await(lastPlace_, cancelled)) return false;
    lastPlace_ = manager_.rateQueue.Add(bytes, Clock::now(), mostBurst_);
    return true;
}

/// Sleeps until all up to a place in the queue is paid; false when the transmission must stop.
bool HttpManagedTransmission::Await(std::uint64_t place, const std::function<bool()>& cancelled) {
    Clock::time_point now = Clock::now();
    while (true) {
        const Clock::duration wait = manager_.rateQueue.Remaining(place, now);
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
    const std::uint64_t second = std::max<std::uint64_t>(bitsPerSecond_ / 8, 1);
    return static_cast<std::size_t>(std::clamp(second / 20, std::min({frameBytes_, second, kMost}), kMost));
}

/// False when the window is closed. Reading the rate involves calendar arithmetic, which is too expensive to
/// do for every piece.
bool HttpManagedTransmission::ReadRate(Clock::time_point now) {
    if (now < nextRateRead_) return true;
    const std::uint64_t rate = BitsPerSecond(now);
    if (rate == 0) return false;
    bitsPerSecond_ = rate;
    manager_.rateQueue.SetRate(rate, now);
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

#include "kelcore/http/managed_transmission.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = HttpManagedTransmission::Clock;

constexpr auto kSlice = std::chrono::milliseconds(100);        ///< of sleep, and between readings of the rate
constexpr auto kRetryMeasureAfter = std::chrono::seconds(60);  ///< when the peer did not answer
constexpr unsigned long kMaxRate = 1'000'000'000'000UL;        ///< keeps products below 2^64

}  // namespace

HttpManagedTransmission::HttpManagedTransmission(HttpBandwidthManager& manager) : manager_(manager) {}

HttpManagedTransmission::~HttpManagedTransmission() {
    End();
}

bool HttpManagedTransmission::NeedsPeer() const {
    return peer_ == IpAddress() && manager_.BandwidthIsLimited() && IsRelative();
}

bool HttpManagedTransmission::Start() {
    if (started_) return true;
    if (manager_.StartTransmission() < 0) return false;
    started_ = true;
    nextRateRead_ = {};
    // A relative rate is measured before anything is connected.
    if (IsLimited() && IsRelative()) MeasurePeer(Clock::now());
    pacer_.Restart(Clock::now());
    return true;
}

void HttpManagedTransmission::End() {
    if (!started_) return;
    started_ = false;
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
    return static_cast<std::size_t>(
        std::clamp(pacer_.BitsPerSecond() / 8 / 20, std::min(frameBytes_, kMost), kMost));
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

std::uint64_t HttpManagedTransmission::BitsPerSecond(Clock::time_point now) {
    int frameSize = 0;
    const std::uint64_t rate = std::min(manager_.GetRate(frameSize), kMaxRate);
    if (frameSize > 0) frameBytes_ = static_cast<std::uint64_t>(frameSize);
    if (rate == 0) return 0;
    if (!IsRelative()) return rate * 1000;
    MeasurePeer(now);
    const std::uint64_t whole = manager_.IsPercentage() ? 100 : 1000;
    const std::uint64_t bandwidth = probedBitsPerSecond_ != 0 ? probedBitsPerSecond_ : kAssumedBitsPerSecond;
    const std::uint64_t share = bandwidth * std::min(rate, whole) / whole / std::max(1U, clientCount_);
    return std::max<std::uint64_t>(share, 1);
}

void HttpManagedTransmission::MeasurePeer(Clock::time_point now) {
    if (now >= nextClientCheck_) CountClients(now);
    if (peerKnown_ && bwPort_ != 0 && now >= nextProbe_) ProbePeer(now);
}

void HttpManagedTransmission::CountClients(Clock::time_point now) {
    unsigned int count = 0;
    unsigned int port = 0;
    unsigned long checkMicroseconds = 0;
    unsigned long probeMicroseconds = 0;
    unsigned int duration = 0;
    nextClientCheck_ = now + kRetryMeasureAfter;
    if (!manager_.GetClientCount(!peerKnown_, count, port, checkMicroseconds, probeMicroseconds, duration))
        return;
    clientCount_ = count;
    if (!peerKnown_) {
        peerKnown_ = true;
        bwPort_ = port;
        pingDuration_ = duration;
        clientCheckEvery_ = std::chrono::microseconds(checkMicroseconds);
        probeEvery_ = std::chrono::microseconds(probeMicroseconds);
    }
    if (clientCheckEvery_ > Clock::duration::zero()) nextClientCheck_ = now + clientCheckEvery_;
}

void HttpManagedTransmission::ProbePeer(Clock::time_point now) {
    const std::uint64_t bytesPerSecond = manager_.BandwidthEstimationTCP(peer_, bwPort_, pingDuration_);
    if (bytesPerSecond == 0) {
        nextProbe_ = now + kRetryMeasureAfter;
        return;
    }
    probedBitsPerSecond_ = std::min<std::uint64_t>(bytesPerSecond, kMaxRate) * 8;
    nextProbe_ = probeEvery_ > Clock::duration::zero() ? now + probeEvery_ : Clock::time_point::max();
}

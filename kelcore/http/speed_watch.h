#pragma once

#include <chrono>
#include <cstdint>

/// Decides when an exchange has become too slow to go on: below kMinBytesPerSecond over a whole window, or,
/// while the exchange is paced on purpose, without a single byte. A peer that has received a whole request
/// gets additional time to put it on its disk. Reads no clock: the time is an argument. One thread at a time.
class HttpSpeedWatch {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::uint64_t kMinBytesPerSecond = 1000;
    static constexpr std::chrono::milliseconds kWindow{30'000};
    static constexpr std::uint64_t kSyncBytesPerSecond = 10'000'000;  ///< of a slow disk

    explicit HttpSpeedWatch(Clock::time_point now, std::chrono::milliseconds window = kWindow)
        : window_(window), end_(now + window) {}

    /// `bytes` were sent or received.
    void OnBytes(std::uint64_t bytes) { bytes_ += bytes; }

    /// The whole request body of `bytes` has been sent: a new window begins.
    void OnRequestSent(std::uint64_t bytes, Clock::time_point now) {
        Restart(now);
        end_ += std::chrono::seconds(bytes / kSyncBytesPerSecond);
    }

    /// Call it at least every few seconds. `paced`: the exchange is held back on purpose now.
    bool IsTooSlow(Clock::time_point now, bool paced) {
        paced_ = paced_ || paced;
        if (now < end_) return false;
        const std::uint64_t least = kMinBytesPerSecond * static_cast<std::uint64_t>(window_.count()) / 1000;
        if (paced_ ? bytes_ == 0 : bytes_ < least) return true;
        Restart(now);
        return false;
    }

    /// A new window begins.
    void Restart(Clock::time_point now) {
        bytes_ = 0;
        paced_ = false;
        end_ = now + window_;
    }

  private:
    std::chrono::milliseconds window_;
    Clock::time_point end_;
    std::uint64_t bytes_ = 0;
    bool paced_ = false;  ///< at some point in this window
};

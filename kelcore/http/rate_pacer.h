#pragma once

#include <chrono>
#include <cstdint>

/// Decides how long a sender must wait to keep to a rate. It neither sleeps nor reads a clock: the time is
/// always an argument. One thread at a time.
///
/// Bytes that were passed are a debt, which is paid by the time that goes by. A stall earns a credit of at
/// most kMaxCredit, which limits the burst after it; LimitBursts sets a limit in bytes.
class HttpRatePacer {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::duration kMaxCredit = std::chrono::seconds(1);

    /// No more than `bytes` are passed at once: credit is earned only as far as it leaves room for what is
    /// passed with it.
    void LimitBursts(std::uint64_t bytes) { burst_ = bytes; }

    /// Forgets debt and credit.
    void Restart(Clock::time_point now);

    /// Changes the rate in bits per second (not 0); what is still unpaid is paid at the new rate.
    void SetRate(std::uint64_t bitsPerSecond, Clock::time_point now);

    /// Adds `bytes` that were passed just now.
    void Add(std::uint64_t bytes, Clock::time_point now);

    /// How long to wait at `now` until all that was passed is paid; 0: nothing. A rate must be set.
    Clock::duration Remaining(Clock::time_point now) const;

    std::uint64_t BitsPerSecond() const { return rate_; }

    /// The time that `bytes` take at `bitsPerSecond` (not 0).
    static Clock::duration TimeFor(std::uint64_t bytes, std::uint64_t bitsPerSecond);

  private:
    void Settle(std::uint64_t next, Clock::time_point now);
    Clock::duration MaxCredit(std::uint64_t next) const;

    std::uint64_t rate_ = 0;
    std::uint64_t burst_ = 0;  ///< 0: kMaxCredit alone
    std::uint64_t bytes_ = 0;  ///< passed since since_
    Clock::time_point since_;  ///< all that was passed before is paid
};

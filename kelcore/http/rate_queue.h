#pragma once

#include <chrono>
#include <cstdint>

#include "kel/mutex.h"

/// Lines up what all transmissions of a bandwidth manager pass, piece behind piece, at the sum of their
/// rates: the share that one does not use goes to the others, and it has it back with its next piece. It
/// neither sleeps nor reads a clock. Any thread.
///
/// Pieces were passed before they stand in the queue, so what is left of a transmission that ends is still
/// paid by the time of the others. A stall of all earns a credit of at most kMostCredit, which limits the
/// burst after it: over ten seconds, it adds 3 % to the rate. A pause between two transmissions counts as a
/// stall if it is no longer than that, so that a file may be written to the disk while the next one is paid
/// for; a longer one earns nothing.
class HttpRateQueue {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kMostCredit{300};

    /// A transmission begins and ends.
    void Join(Clock::time_point now);
    void Leave(Clock::time_point now);

    /// Each running transmission has this rate in bits per second (not 0).
    void SetRate(std::uint64_t bitsPerSecond, Clock::time_point now);

    /// Appends a piece; its place, for Remaining. With `mostBurst` (bytes), a stall before it counts only as
    /// far as what then passes at once, this piece included, is no more than that.
    std::uint64_t Add(std::uint64_t bytes, Clock::time_point now, std::uint64_t mostBurst = 0);

    /// How long it takes until a piece and all before it are paid.
    Clock::duration Remaining(std::uint64_t place, Clock::time_point now) const;

    /// Forgets all pieces and all credit: there is no limit.
    void Clear(Clock::time_point now);

  private:
    double PaidAt(Clock::time_point now) const KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;  ///< a leaf
    unsigned int running_ KEL_GUARDED_BY(mutex_) = 0;
    double bytesPerSecond_ KEL_GUARDED_BY(mutex_) = 0;  ///< of all
    std::uint64_t added_ KEL_GUARDED_BY(mutex_) = 0;    ///< bytes
    double paid_ KEL_GUARDED_BY(mutex_) = 0;            ///< of them, at time_; above added_: credit
    Clock::time_point time_ KEL_GUARDED_BY(mutex_);
    Clock::time_point idleSince_ KEL_GUARDED_BY(mutex_);  ///< while nothing runs
};

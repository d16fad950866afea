#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/types.h"

/// Logs failures that are met again and again, as a full disk or a silent peer is by a worker that retries:
/// a line when a failure begins, one an hour while it lasts, one when it ends. What happens in between is
/// counted; a failure that comes and goes is logged at most once a minute. Any thread.
///
/// A failure is known by a key that its owner chooses, such as "download 17": the part that stays the same,
/// not the text, which may name another file each time.
class KelFailureLog {
  public:
    using Clock = std::chrono::steady_clock;

    explicit KelFailureLog(const KelDebug& log) : log_(log) {}

    /// The failure has happened (again). True when `line`, without a line end, was logged at `level`.
    bool Failed(KelDebugLevel level, const KelString& key, const KelString& line,
                Clock::time_point now = Clock::now());

    /// What used to fail has succeeded: if it had failed, logs `line` with how often and for how long.
    void Succeeded(const KelString& key, const KelString& line, Clock::time_point now = Clock::now());

    /// True between a failure and the success that ends it.
    bool IsFailing(const KelString& key);

    /// Forgets all failures.
    void Clear();

  private:
    struct State {
        bool isOpen = false;       ///< failing now; otherwise kept for a while after its end
        bool isAnnounced = false;  ///< its beginning was logged
        Clock::time_point begin;
        Clock::time_point last;
        std::uint64_t count = 0;
        std::optional<Clock::time_point> logged;  ///< the last line about it
    };

    static constexpr std::size_t kFewFailures = 100;

    void DropOld(Clock::time_point now) KEL_REQUIRES(mutex_);

    const KelDebug& log_;
    KelMutex mutex_;
    KelHash<KelString, State> failing_ KEL_GUARDED_BY(mutex_);
    std::size_t dropAt_ KEL_GUARDED_BY(mutex_) = kFewFailures;  ///< so many entries; the old ones go then
};

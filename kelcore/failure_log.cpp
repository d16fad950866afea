#include "kelcore/failure_log.h"

#include <algorithm>
#include <utility>

#include "kel/format.h"

namespace {

constexpr std::chrono::hours kReminder{1};

/// A failure that comes back sooner after a line about it is not logged again yet.
constexpr std::chrono::minutes kSettled{1};

/// Failures without an end, such as those of files that were removed, are forgotten after this time.
constexpr std::chrono::hours kForgotten{24};

/// More are not remembered: each takes a few hundred bytes.
constexpr std::size_t kMaxFailures = 10'000;

KelString TimeText(KelFailureLog::Clock::duration time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
    if (seconds < 120) return KelFormat("%gd s", seconds);
    if (seconds < 7200) return KelFormat("%gd minutes", seconds / 60);
    return KelFormat("%gd hours", seconds / 3600);
}

void Log(const KelDebug& log, KelDebugLevel level, const KelString& line) {
    if (level == KelDebugLevel::Error)
        log.Error("%S\n", line);
    else if (level == KelDebugLevel::Warning)
        log.Warning("%S\n", line);
    else
        log.Print("%S\n", line);
}

}  // namespace

bool KelFailureLog::Failed(KelDebugLevel level, const KelString& key, const KelString& line,
                           Clock::time_point now) {
    KelString text = line;
    {
        const KelLock lock(mutex_);
        if (failing_.size() >= dropAt_) DropOld(now);
        State& state = failing_[key];
        if (!state.isOpen) {
            state.isOpen = true;
            state.isAnnounced = false;
            state.begin = now;
            state.count = 0;
        }
        ++state.count;
        state.last = now;
        const auto pause = state.isAnnounced ? Clock::duration(kReminder) : Clock::duration(kSettled);
        if (state.logged && now - *state.logged < pause) return false;
        if (state.count > 1)
            text += KelFormat(" (%gu times in %S)", state.count, TimeText(now - state.begin));
        state.isAnnounced = true;
        state.logged = now;
    }
    Log(log_, level, text);
    return true;
}

void KelFailureLog::Succeeded(const KelString& key, const KelString& line, Clock::time_point now) {
    State ended;
    {
        const KelLock lock(mutex_);
        const auto found = failing_.find(key);
        if (found == failing_.end() || !std::exchange(found->second.isOpen, false)) return;
        if (!found->second.isAnnounced) return;
        found->second.logged = now;
        ended = found->second;
    }
    log_.Print("%S, after %gu failures in %S\n", line, ended.count, TimeText(now - ended.begin));
}

bool KelFailureLog::IsFailing(const KelString& key) {
    const KelLock lock(mutex_);
    const auto found = failing_.find(key);
    return found != failing_.end() && found->second.isOpen;
}

void KelFailureLog::Clear() {
    const KelLock lock(mutex_);
    failing_.clear();
}

/// Makes room: old failures first, then any.
void KelFailureLog::DropOld(Clock::time_point now) {
    std::erase_if(failing_, [now](const auto& failure) {
        const auto pause = failure.second.isOpen ? Clock::duration(kForgotten) : Clock::duration(kSettled);
        return now - failure.second.last >= pause;
    });
    if (failing_.size() >= kMaxFailures) failing_.erase(failing_.begin());
    dropAt_ = std::clamp(2 * failing_.size(), kFewFailures, kMaxFailures);
}

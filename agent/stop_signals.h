#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

#include "kel/debug.h"

/// Turns SIGTERM and SIGINT into a request to stop, and ends the process when stopping takes too long.
///
/// A thread of its own waits for the signals, so that they are noticed whatever the main thread does. The
/// first signal calls `onStop` on that thread and starts the countdown: when the process still runs after
/// kStopSeconds, a line goes to the log and the process exits with 1 without further cleaning up. A second
/// signal exits with 1 at once, unless it comes within kSameStop of the first: a supervisor that signals the
/// process and its group stops once.
class StopSignals {
  public:
    static constexpr int kStopSeconds = 5;
    static constexpr std::chrono::milliseconds kSameStop{500};

    /// Blocks the signals for the calling thread and all it starts from here on, and ignores SIGPIPE. Make it
    /// on the main thread before any other thread is started.
    StopSignals(std::function<void()> onStop, const KelDebug& log);

    /// Ends the countdown: the process stops in time.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// True once a stop was asked for. Any thread.
    bool IsRequested() const;
    /// Waits until a stop is asked for, at most for `pause`; true when it is. Main thread.
    bool WaitFor(std::chrono::seconds pause);

  private:
    void Watch();
    void Request();

    std::function<void()> onStop_;
    const KelDebug& log_;
    sigset_t signals_{};
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool requested_ = false;          ///< guarded by mutex_
    std::atomic<bool> done_ = false;  ///< the watching thread has to end
    std::thread watcher_;
};

#include "kel/thread.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

namespace {

/// Longer waits are cut to this, so that now + wait stays within the clock's range.
constexpr std::uint64_t kLongestWaitMs = 10ULL * 365 * 24 * 3600 * 1000;

std::chrono::steady_clock::time_point After(std::uint64_t milliseconds) {
    return std::chrono::steady_clock::now() +
           std::chrono::milliseconds(std::min(milliseconds, kLongestWaitMs));
}

}  // namespace

KelThread::~KelThread() {
    Cancel(0, true);
}

bool KelThread::Start() {
    const std::lock_guard lock(mutex_);
    if (running_) return false;
    // Run no longer takes the mutex once running_ is false, so this join cannot deadlock.
    if (thread_.joinable()) thread_.join();
    cancelled_ = signalled_ = false;
    cancelReason_ = lastSignal_ = 0;
    try {
        thread_ = std::thread(&KelThread::Run, this);
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "A thread cannot be started: %s. Check the limits on processes and memory.\n",
                     error.what());
        return false;
    }
    running_ = true;
    return true;
}

void KelThread::Run() {
    {
        // Waits for Start, which holds the mutex until running_ is set.
        const std::lock_guard lock(mutex_);
    }
    try {
        ThreadMain();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "A thread ended with an exception: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "A thread ended with an exception of unknown type\n");
    }
    const std::lock_guard lock(mutex_);
    running_ = false;
    wakeUp_.notify_all();
}

void KelThread::Cancel(unsigned long reason, bool wait) {
    {
        const std::lock_guard lock(mutex_);
        if (running_ && !cancelled_) {
            cancelled_ = true;
            cancelReason_ = reason;
            wakeUp_.notify_all();
        }
    }
    if (wait) Join();
}

void KelThread::Join() {
    std::thread ended;
    {
        std::unique_lock lock(mutex_);
        // A thread that joined itself would wait without end.
        if (thread_.get_id() == std::this_thread::get_id()) return;
        wakeUp_.wait(lock, [this] { return !running_; });
        ended = std::move(thread_);
    }
    if (!ended.joinable()) return;
    ended.join();
    const std::lock_guard lock(mutex_);
    if (!thread_.joinable()) cancelled_ = false;  // idle again, unless another call has started it meanwhile
}

void KelThread::Signal(unsigned long value) {
    const std::lock_guard lock(mutex_);
    signalled_ = true;
    lastSignal_ = value;
    wakeUp_.notify_all();
}

bool KelThread::IsThreadRunning() const {
    const std::lock_guard lock(mutex_);
    return running_;
}

unsigned long KelThread::CancelReason() const {
    const std::lock_guard lock(mutex_);
    return cancelReason_;
}

unsigned long KelThread::LastSignal() const {
    const std::lock_guard lock(mutex_);
    return lastSignal_;
}

bool KelThread::CheckCancelled(bool wait) const {
    std::unique_lock lock(mutex_);
    if (wait) wakeUp_.wait_until(lock, After(1000), [this] { return cancelled_; });
    return cancelled_;
}

bool KelThread::Pause(std::uint64_t milliseconds) {
    std::unique_lock lock(mutex_);
    wakeUp_.wait_until(lock, After(milliseconds), [this] { return cancelled_ || signalled_; });
    return std::exchange(signalled_, false);
}

void KelThread::Sleep(std::uint64_t milliseconds) {
    std::unique_lock lock(mutex_);
    wakeUp_.wait_until(lock, After(milliseconds), [this] { return cancelled_; });
}

#include "agent/stop_signals.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>

StopSignals::StopSignals(std::function<void()> onStop, const KelDebug& log)
    : onStop_(std::move(onStop)), log_(log) {
    sigemptyset(&signals_);
    // SIGUSR2 is how the destructor wakes the watching thread; on its own it changes nothing.
    for (const int signal : {SIGTERM, SIGINT, SIGUSR2})
        sigaddset(&signals_, signal);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    // A connection that the peer has closed is an error of the write, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN);
    watcher_ = std::thread([this] { Watch(); });
}

StopSignals::~StopSignals() {
    done_ = true;
    pthread_kill(watcher_.native_handle(), SIGUSR2);
    watcher_.join();
}

bool StopSignals::IsRequested() const {
    const std::lock_guard lock(mutex_);
    return requested_;
}

bool StopSignals::WaitFor(std::chrono::seconds pause) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, pause, [this] { return requested_; });
}

void StopSignals::Request() {
    onStop_();
    const std::lock_guard lock(mutex_);
    requested_ = true;
    changed_.notify_all();
}

void StopSignals::Watch() {
    using Clock = std::chrono::steady_clock;
    int first = 0;
    while (!done_ && first != SIGTERM && first != SIGINT)
        sigwait(&signals_, &first);
    if (done_) return;
    log_.Print("Received signal %d, stopping\n", first);
    const auto begin = Clock::now();
    const auto deadline = begin + std::chrono::seconds(kStopSeconds);
    Request();
    while (!done_) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            // _exit, because static destructors would take away what hanging threads still use.
            log_.Error("Not stopped after %d seconds, ending without cleaning up\n", kStopSeconds);
            _exit(EXIT_FAILURE);
        }
        const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        const timespec wait{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
        const int signal = sigtimedwait(&signals_, nullptr, &wait);
        if ((signal == SIGTERM || signal == SIGINT) && Clock::now() - begin >= kSameStop) {
            log_.Warning("Received a second signal, ending at once\n");
            _exit(EXIT_FAILURE);
        }
    }
}

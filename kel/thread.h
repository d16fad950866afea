#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

/// A long-lived thread with an interruptible wait. Derive and supply ThreadMain.
///
/// Controlling side (any thread): Start, Signal, Cancel, Join, IsThreadRunning. Controlled side (ThreadMain
/// and what it calls): Pause, Sleep, CheckCancelled. States: idle -> Start -> running -> (ThreadMain returns)
/// -> ended -> Join -> idle; a joined thread can be started again. Cancel on an idle thread has no effect.
class KelThread {
  public:
    KelThread() = default;
    /// Cancels and joins a thread that still runs; derived classes whose ThreadMain uses their own members
    /// must have been joined before their destructor ends.
    virtual ~KelThread();
    KelThread(const KelThread&) = delete;
    KelThread& operator=(const KelThread&) = delete;

    /// Starts the thread; false when it runs already. Clears an earlier cancellation and kept signals.
    bool Start();

    /// Asks the thread to end: wakes Pause and Sleep and makes CheckCancelled true. `reason` is kept for the
    /// log; with `wait` true the call joins the thread too.
    void Cancel(unsigned long reason, bool wait);

    /// Waits until ThreadMain has returned. Not callable from the thread itself.
    void Join();

    /// Ends the present or the next Pause: a signal that arrives while the thread works is kept, so no
    /// wake-up is lost; several signals count as one. `value` says who woke it and is only for the log.
    void Signal(unsigned long value);

    /// True from Start until ThreadMain returns.
    bool IsThreadRunning() const;

    /// The reason of the first cancellation and the value of the latest signal; 0 when there was none since
    /// Start.
    unsigned long CancelReason() const;
    unsigned long LastSignal() const;

    /// True from Cancel until the thread is joined or started again; with `wait` true it first waits for up
    /// to one second for a cancellation.
    bool CheckCancelled(bool wait) const;

    /// Waits up to `milliseconds`; returns early on Signal (true) or cancellation (false when neither came).
    bool Pause(std::uint64_t milliseconds);

    /// Waits up to `milliseconds`; ends early on cancellation only, a signal is kept for the next Pause.
    void Sleep(std::uint64_t milliseconds);

  protected:
    /// The body. An exception that leaves it is logged and ends the thread.
    virtual void ThreadMain() = 0;

  private:
    void Run();

    mutable std::mutex mutex_;
    mutable std::condition_variable wakeUp_;
    std::thread thread_;
    // Guarded by mutex_, as thread_ is.
    bool running_ = false;
    bool cancelled_ = false;
    bool signalled_ = false;
    unsigned long cancelReason_ = 0;
    unsigned long lastSignal_ = 0;
};

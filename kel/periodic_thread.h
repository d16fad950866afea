#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "kel/debug.h"
#include "kel/thread.h"

/// A thread that works in steps with a pause between them, until it is cancelled or the pause function ends
/// it. Signal ends the present pause, or the next one when it comes during a step; Cancel ends the pause and
/// the thread.
///
/// The owner constructs it, then controls it from any thread as described at KelThread. Both functions run on
/// the thread itself, never at the same time, and neither once Join has returned. They use what belongs to
/// the owner, so the owner joins the thread before it destroys any of that.
class KelPeriodicThread : public KelThread {
  public:
    /// One unit of work. True when something is left over that a later step should try again. An exception is
    /// logged and counts as true; the thread goes on with the next pause.
    using Step = std::function<bool()>;

    /// The length of the next pause in milliseconds; nothing to end the thread. Called before every pause, so
    /// that a changed setting takes effect with the next one. `isWorkLeft` is what the last step returned,
    /// true before the first. Must not throw.
    using NextPause = std::function<std::optional<std::uint64_t>(bool isWorkLeft)>;

    enum class Begin { WithStep, WithPause };

    /// `log` receives what a step throws; it lives as long as the thread.
    KelPeriodicThread(const KelDebug& log, Begin begin, Step step, NextPause nextPause);
    ~KelPeriodicThread() override;

  protected:
    void ThreadMain() override;

  private:
    bool RunStep();

    const KelDebug& log_;
    const Begin begin_;
    const Step step_;
    const NextPause nextPause_;
};

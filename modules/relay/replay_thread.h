#pragma once

#include <cstdint>
#include <functional>

#include "kel/thread.h"

/// Calls a function again and again on a thread of its own: at its start, after each pause and when
/// signalled.
class ReplayThread : public KelThread {
  public:
    explicit ReplayThread(std::function<void()> step) : step_(std::move(step)) {}

    /// Seconds between two calls; while the thread does not run.
    void SetInterval(std::uint32_t seconds) { interval_ = seconds; }

  protected:
    void ThreadMain() override;

  private:
    std::function<void()> step_;
    std::uint32_t interval_ = 30;
};

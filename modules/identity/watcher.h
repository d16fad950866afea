#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kel/thread.h"

/// Calls a function again and again on a thread of its own, with a pause before each call. A signal ends the
/// pause.
class IdentityWatcher : public KelThread {
  public:
    /// `check` returns true while it waits for something that may come at any moment; the next call then
    /// comes after at most two seconds.
    explicit IdentityWatcher(std::function<bool()> check) : check_(std::move(check)) {}

    /// Seconds between two calls; takes effect with the next pause.
    void SetInterval(std::uint32_t seconds) { interval_ = seconds; }

  protected:
    void ThreadMain() override;

  private:
    std::function<bool()> check_;
    std::atomic<std::uint32_t> interval_ = 30;
};

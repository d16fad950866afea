#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kel/thread.h"

/// Calls a function again and again on a thread of its own, with a pause before each call.
class IdentityWatcher : public KelThread {
  public:
    explicit IdentityWatcher(std::function<void()> check) : check_(std::move(check)) {}

    /// Seconds between two calls; takes effect with the next pause.
    void SetInterval(std::uint32_t seconds) { interval_ = seconds; }

  protected:
    void ThreadMain() override;

  private:
    std::function<void()> check_;
    std::atomic<std::uint32_t> interval_ = 30;
};

#pragma once

#include <chrono>
#include <functional>

#include "kel/types.h"

/// Tells the system's service manager (systemd) how the agent is doing, through libsystemd. Without one that
/// asked for it, all operations do nothing. For the main thread.
class ServiceManager {
  public:
    /// `isAlive` finds out whether the agent still works; it may block as long as it does not.
    explicit ServiceManager(std::function<bool()> isAlive);

    /// The agent has started; `status` is the line that `systemctl status` shows.
    void Ready(const KelString& status);
    void Status(const KelString& status);
    void Stopping();

    /// True when a service manager reads the status.
    bool IsWatched() const { return isWatched_; }

    /// How long the main thread may wait before the next Step, at most `longest`: the service manager takes
    /// an agent for dead that has not shown life for four such steps.
    std::chrono::seconds Pause(std::chrono::seconds longest) const;

    /// Shows life when the agent is alive.
    void Step();

  private:
    std::function<bool()> isAlive_;
    const bool isWatched_;
    std::chrono::microseconds watchdog_{0};  ///< 0: life need not be shown
};

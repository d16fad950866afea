#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "kel/periodic_thread.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"
#include "kelcore/metrics/metric.h"

/// The loop of every worker thread: wait as long as the ini file says, do one unit of work, repeat. The
/// setting is read anew before every wait; 0 ends the thread, which a restart of the module starts again.
class FileThreadBase : public KelPeriodicThread {
  public:
    /// The wait in seconds stands in the module's ini file, in `section` under `key`.
    FileThreadBase(const char* section, const char* key, int defaultSeconds);
    ~FileThreadBase() override = default;

    /// Ends the thread's wait when it runs and is not being cancelled. From any thread. `value` is only for
    /// the log.
    void WakeUp(unsigned long value = 0);

    /// The units of work done by now. From any thread.
    const KelDurations& Steps() const { return steps_; }

  protected:
    void ThreadMain() override;

    /// One unit of work, on this thread. True when something was done.
    virtual bool DoWork() = 0;

    /// The next wait is no longer than this: something that was put off is due then. On this thread.
    void LookAgainIn(std::chrono::seconds most) { longestWait_ = most; }

  private:
    std::optional<std::uint64_t> NextWait();

    bool Step();

    const IniSetting wait_;
    KelDurations steps_;
    std::optional<std::chrono::seconds> longestWait_;  ///< of the next wait only
};

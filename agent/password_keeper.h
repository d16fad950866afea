#pragma once

#include <cstdint>

#include "agent/agent_config.h"
#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/result.h"

/// Has the passwords in Agent.ini in force (kelcore/tree_passwords.h): at the start, when the file has
/// changed, and until a former one has ended. Any thread.
class PasswordKeeper {
  public:
    explicit PasswordKeeper(const KelDebug& log) : log_(log) {}

    /// `now`: seconds since the epoch, as below.
    void Begin(const AgentConfig& config, std::int64_t now);

    /// Reads Agent.ini again. An error when it could not be used at a start either; nothing changes then.
    KelStatus Reload(std::int64_t now);

    /// Ends a former password whose time is over, and logs once a day that there is one.
    void Step(std::int64_t now);

  private:
    void Apply(const AgentConfig& config, std::int64_t now) KEL_REQUIRES(mutex_);
    void Remind(std::int64_t now) KEL_REQUIRES(mutex_);

    const KelDebug& log_;
    KelMutex mutex_;
    KelString root_ KEL_GUARDED_BY(mutex_);
    std::int64_t reminded_ KEL_GUARDED_BY(mutex_) = 0;
};

/// Registers the agent's actions on its passwords. `keeper` outlives them.
void RegisterPasswordActions(PasswordKeeper& keeper);

#pragma once

#include <cstdint>

#include "kel/types.h"

/// What the agent says about itself; fixed once it runs.
struct AgentFacts {
    KelString root;
    std::int64_t started = 0;  ///< seconds since the epoch
    KelVector<KelString> modules;
};

/// Handle under which the agent's own actions are registered.
inline constexpr const char* kAgentHandle = "Agent";

class PasswordKeeper;

/// Registers the agent's own actions. `passwords` outlives them.
void RegisterAgentActions(AgentFacts facts, PasswordKeeper& passwords);

#pragma once

#include "agent/agent_actions.h"

/// Registers what the agent itself contributes to the metrics: the process and its logs, and what the
/// services of the agent have counted.
void RegisterAgentMetrics(const AgentFacts& facts);

#pragma once

#include "kel/result.h"
#include "kel/types.h"

/// The text of docs/actions.md: what the actions of the agent and of every module in `modulesDir` (ends with
/// "/") take, give and do, by module. Registers the modules and removes them again; they are not initialised.
/// For a process that runs no agent.
KelResult<KelString> ActionsInMarkdown(const KelString& modulesDir);

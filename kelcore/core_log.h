#pragma once

#include "kel/debug.h"

/// The log of the agent's services ("KelCore"); its lines go where KelAgentConfigure says. Any thread.
KelDebug& CoreLog();

#pragma once

/// True once the agent was asked to stop: long work ends that can be done again, or go on, after the next
/// start. Any thread.
bool KelAgentIsStopping();

/// For the agent process, and for tests.
void KelAgentSetStopping(bool isStopping);

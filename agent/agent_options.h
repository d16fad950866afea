#pragma once

#include <optional>

#include "kel/types.h"

/// Exit codes of the agent program.
inline constexpr int kExitClean = 0;    ///< stopped on request; with --check: nothing wrong
inline constexpr int kExitFailure = 1;  ///< could not start, did not stop in time, or --check found a fault
inline constexpr int kExitUsage = 2;    ///< unusable arguments
inline constexpr int kExitLocked = 3;   ///< another agent runs on this root

/// What the command line asks for.
struct AgentOptions {
    KelString root;        ///< absolute, ends with "/"
    KelString modulesDir;  ///< absolute, ends with "/"
    bool check = false;
    bool actions = false;  ///< describe the actions; the root may be empty then
};

/// Reads the arguments. Nothing when the program has to end at once with `exitCode`: help and version were
/// printed to stdout, or the fault to stderr.
std::optional<AgentOptions> ParseAgentOptions(int count, char** arguments, int& exitCode);

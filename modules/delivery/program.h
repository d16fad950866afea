#pragma once

#include <chrono>
#include <functional>

#include "kel/types.h"

/// How a program ended.
struct ProgramResult {
    enum class End : unsigned char { NotStarted, Exited, Killed, TimedOut, Cancelled };
    End end = End::NotStarted;
    int code = 0;  ///< errno, exit code or signal number, by `end`
};

/// A program to run. It has no input and no open files; its output goes line by line to a function.
struct Program {
    KelVector<KelString> arguments;  ///< the first is the absolute path of the program
    KelVector<KelString>
        environment;  ///< "NAME=value"; besides, it gets paths, user and language of this process
    unsigned int umask = 022;
    std::chrono::milliseconds timeout = std::chrono::minutes(5);
    std::function<bool()> cancelled;               ///< called several times a second; true ends the program
    std::function<void(const KelString&)> output;  ///< receives each line without its end
};

/// Longer lines of output are cut into pieces of this size.
inline constexpr std::size_t kMaxLineBytes = 1024;

/// Runs a program in a process group of its own and waits for it. At the time-out and on cancellation the
/// whole group receives SIGTERM, and SIGKILL two seconds later. Any thread, concurrently.
ProgramResult RunProgram(const Program& program);

#pragma once

#include <chrono>

#include "cli/remote.h"
#include "kel/container.h"
#include "kel/types.h"

/// Where a publication stands, by the counts of its targets.
enum class PublicationState { Going, Complete, Failed };

/// Of a container with Targets, Delivered and Failed: going while a target is pending, then failed when one
/// target failed.
PublicationState StateOf(const KelContainer& publication);

/// "name  3 of 6 delivered, 1 failed".
KelString WatchText(const KelContainer& publication);

/// The arguments of ConsoleListPublications that ask for the counts of the publications under "Values".
KelContainer WatchArguments(const KelContainer& published);

/// Takes Targets, Delivered, Failed and Pending over from the publications under "Values" in `answer` into
/// those of the same PublicationId in `published`.
void TakeCounts(const KelContainer& answer, KelContainer& published);

/// How long to wait before the next question when the last one took `asked`.
std::chrono::nanoseconds WatchPause(std::chrono::nanoseconds asked);

/// Shows on stderr how far the publications under "Values" in `published` (each with its PublicationId) are,
/// as bars on a terminal, else as lines when something changed, until none is going any more or the user
/// interrupts (SIGINT). Asks every half a second, less often a master that needs longer to answer. Puts
/// Delivered, Failed and Pending into them. An exit code: 1 when a target failed or the user interrupted, 3
/// when the master did not answer.
int WatchPublications(const Remote& remote, KelContainer& published);

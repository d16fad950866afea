#pragma once

#include <chrono>

#include "cli/remote.h"
#include "kel/container.h"
#include "kel/types.h"

/// The state of a publication as a whole.
enum class PublicationState { Going, Complete, Failed };

/// The state that follows from Targets, Delivered, Failed and State: going while a target is pending, then
/// failed when at least one target failed. A publication in stages that was stopped is failed.
PublicationState StateOf(const KelContainer& publication);

/// "name  3 of 6 delivered, 1 failed".
KelString WatchText(const KelContainer& publication);

/// Of a publication in stages, "stage 1 of 3", "stopped at stage 1 of 3: 2 of its targets failed" or "all 3
/// stages complete"; empty for others.
KelString StageText(const KelContainer& publication);

/// The arguments with which ConsoleListPublications returns only the counts of the publications under
/// "Values".
KelContainer WatchArguments(const KelContainer& published);

/// Copies Targets, Delivered, Failed, Pending and the values of stages of the publications under "Values" in
/// `answer` to those with the same PublicationId in `published`.
void TakeCounts(const KelContainer& answer, KelContainer& published);

/// How long to wait before the next call when the last one took `asked`.
std::chrono::nanoseconds WatchPause(std::chrono::nanoseconds asked);

/// Shows the progress of the publications under "Values" in `published` (each with its PublicationId) on
/// stderr until none is going any more or the user interrupts (SIGINT), and copies the counts into them. Asks
/// every half second, or less often when the master takes longer than that to answer. An exit code: 1 when a
/// target failed or the user interrupted, 3 when the master did not answer.
int WatchPublications(const Remote& remote, KelContainer& published);

#pragma once

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

/// Shows on stderr how far the publications under "Values" in `published` (each with its PublicationId) are,
/// as bars on a terminal, else as lines when something changed, until none is going any more or the user
/// interrupts (SIGINT). Puts Delivered, Failed and Pending into them. An exit code: 1 when a target failed or
/// the user interrupted.
int WatchPublications(const Remote& remote, KelContainer& published);

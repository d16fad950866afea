#pragma once

#include <chrono>

#include "cli/remote.h"
#include "kel/container.h"
#include "kel/types.h"

// What `top` shows: the state of a device, or of the devices of the tree, as a container and as lines.

/// Asks a device for its transfers, queues, windows and what holds it up: Transfers (containers), Files and
/// FilesUpstream (numbers by status), Waiting, Relay, Windows (containers). The result of the call that
/// failed, which is not reported; its Message is in `state` then.
unsigned int ReadTopState(const Remote& remote, KelContainer& state);

/// Adds Rate (bytes a second) to the transfers in `state` that are in `before`, too, which was read so long
/// before.
void AddRates(const KelContainer& before, std::chrono::nanoseconds between, KelContainer& state);

/// What keeps a device from transferring, as sentences joined by "; "; empty when nothing does.
KelString HindranceText(const KelContainer& state);

/// The view of one device: a few lines and a table of at most `limit` transfers.
KelString TopText(const KelString& device, const KelContainer& state, std::size_t limit);

/// The view of the tree: a line for each of `devices`, each with Name, Role and either State, as ReadTopState
/// gives it, or Message.
KelString TopTreeText(const KelVector<KelContainer>& devices);

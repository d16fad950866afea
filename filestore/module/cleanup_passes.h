#pragma once

#include <cstdint>

#include "filestore/db/file_key.h"
#include "filestore/state/removal_pass.h"

/// The passes of the cleanup thread that concern all files, by direction. Each does everything that is to be
/// done at `now` (seconds since the epoch) unless it is cancelled. On the cleanup thread, without locks.
namespace filestore {

/// Removes files that have done their job and that this device does not keep for others.
void DeleteFiles(Side side, std::int64_t now, const PassHost& host);

/// Removes files older than TimeToLive that this device does not keep for others, in whatever state.
void KillFiles(Side side, std::int64_t now, const PassHost& host);

/// Removes targets older than TimeToLive.
void KillTargets(std::int64_t now, const PassHost& host);

/// False when no module of this device takes files: none is waited for then.
bool HasConsumers();

}  // namespace filestore

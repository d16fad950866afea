#pragma once

#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

/// Code of the error when another process holds the lock.
inline constexpr unsigned int kRootLocked = 2;

/// Takes the lock that lets one agent only run on a root folder: data/agent.lock beneath `root` (ends with
/// "/"), made with the folder when missing, locked with flock(2), so that the kernel releases it however the
/// process ends. The file holds the process id for people.
KelResult<UniqueFd> LockRoot(const KelString& root);

#pragma once

#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

/// The root folder of an agent that commands work on without --root and --url: the one of the installed
/// package, when there is an agent in it; otherwise empty. The variable KEL_ROOT names another one.
KelString DefaultRoot();

/// What root has made beneath a root folder gets the owner of that folder: the agent works as that user.
void GiveToOwner(const KelString& root);

/// Takes the lock that a running agent holds on its root folder (absolute, without "/" at its end), so that
/// none starts before the descriptor is closed. Without a descriptor when an agent runs; an error when that
/// cannot be found out.
KelResult<UniqueFd> LockStoppedRoot(const KelString& root);

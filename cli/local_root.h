#pragma once

#include "kel/result.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

/// The root folder of an agent that commands work on without --root and --url: the one of the installed
/// package, when there is an agent in it; otherwise empty. The variable KEL_ROOT names another one.
KelString DefaultRoot();

/// The command that starts the agent of a root folder: with the unit of systemd that the package has
/// installed for the folder, or without one. The paths of the system are below `system`, which is "" outside
/// tests.
KelString StartCommand(const KelString& root, const KelString& system = "");

/// The same for an agent that runs; without a unit it must be stopped before.
KelString RestartCommand(const KelString& root, const KelString& system = "");

/// For a scope, root works as the user that a root folder belongs to: what is made there is the agent's, and
/// whoever has taken over the agent cannot have root follow links that lead out of the folder. Without effect
/// for others than root, and while the folder does not exist or is root's own.
class AsOwner {
  public:
    explicit AsOwner(const KelString& root);
    ~AsOwner();
    AsOwner(const AsOwner&) = delete;
    AsOwner& operator=(const AsOwner&) = delete;

  private:
    bool isOther_ = false;
};

/// Copies what a descriptor reads, from where it stands, to a new file, which takes the place of an old one.
KelStatus CopyToNewFile(const UniqueFd& source, const KelString& path);

/// Takes the lock that a running agent holds on its root folder (absolute, without "/" at its end), so that
/// none starts before the descriptor is closed. Without a descriptor when an agent runs; an error when that
/// cannot be found out.
KelResult<UniqueFd> LockStoppedRoot(const KelString& root);

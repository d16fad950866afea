#pragma once

#include "kel/types.h"

/// Registers the actions on the databases of the running agent: AgentBackup, which copies them, and
/// AgentCheckDatabases. `root` ends with "/".
void RegisterDatabaseActions(const KelString& root);

/// Removes what an interrupted backup has left beneath `root`.
void RemoveBackupCopies(const KelString& root);

#pragma once

#include <string_view>

#include "kel/unique_fd.h"

namespace kelhttp {

/// True for what a database or an ini file may be called, in any case of its letters, with the files that
/// SQLite keeps beside a database and what was moved aside: "a.sqlite-wal", "a.sqlite.damaged-…", "A.INI".
bool IsStateName(std::string_view name);

/// True when `folder` is one of those whose databases and ini files are the agent's own: its configuration
/// folder, its data folder, or a module's data folder directly in that. The folders themselves are compared,
/// not their names, so it does not matter over which alias or link one is reached. Also true when that cannot
/// be found out. Reads the disk; any thread.
bool IsStateFolder(const UniqueFd& folder);

}  // namespace kelhttp

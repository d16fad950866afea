#pragma once

#include <string_view>

#include "kel/unique_fd.h"

// Files that are neither served nor written even though they lie beneath an alias.

namespace kelhttp {

/// The prefix of the names of unfinished uploads.
inline constexpr std::string_view kUploadPrefix = ".kel-upload-";

/// False for a path that ends in the name of an unfinished or interrupted upload, wherever it is.
bool IsServableName(std::string_view path);

/// True for any name that a database or an ini file may have, in any case, including the files that SQLite
/// keeps next to a database and damaged ones that were renamed: "a.sqlite-wal", "a.sqlite.damaged-…",
/// "A.INI".
bool IsStateName(std::string_view name);

/// True when `folder` is one of those whose databases and ini files belong to the agent: its configuration
/// folder, its data folder, or a module's data folder directly in that. The folders themselves are compared,
/// not their names, so the alias or link through which one is reached does not matter. Also true when this
/// cannot be determined. Reads the disk; any thread.
bool IsStateFolder(const UniqueFd& folder);

}  // namespace kelhttp

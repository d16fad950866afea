#pragma once

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/db/sqlite_database.h"

/// Opens the database at `path`, which the caller has claimed; creates it (mode 0600) when it is missing. A
/// log left behind by an unclean stop calls for a quick check. A damaged database is moved aside with its log
/// and a new one made; both paths go to `log` as an error.
KelResult<SqliteDatabase> OpenDatabase(const KelString& path, const KelDebug& log);

#pragma once

#include "kel/debug.h"
#include "kelcore/db/connection.h"

/// Moves the rows of upstream files, which old versions kept in the downstream database, to the upstream
/// database, once: the row UpstreamTableCreated of the upstream DatabaseInformation then says so. A row that
/// cannot be inserted is logged and left out. False when that table cannot be read. Before any thread uses
/// the connections.
bool FileStoreMigrateUpstreamRows(DBConnection& downstream, DBConnection& upstream, KelDebug& log);

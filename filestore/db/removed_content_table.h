#pragma once

#include <cstdint>

#include "filestore/db/files_table.h"

/// The table RemovedContent of the two databases: the content of removed rows, until it is gone as well. A
/// trigger enters it whenever a row is removed whose content lies in the store, in the transaction of the
/// removal, so that a kill before the content is removed leaves a record of it. Locks and failures as in
/// files_table.h.
namespace filestore {

/// The entries behind `fileId` in the order of their identifiers: FileId, key and FilePath of the removed
/// rows.
FileRows SelectRemovedContent(Side side, std::uint64_t fileId, unsigned int limit);

/// The content of these rows is gone, or belongs to others.
bool ForgetRemovedContent(Side side, const IdList& fileIds);

}  // namespace filestore

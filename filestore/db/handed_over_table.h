#pragma once

#include "filestore/db/database.h"
#include "filestore/db/files_table.h"

/// The table HandedOver (downstream database): the files that were given to the modules of this device and of
/// which none has said yet that it has taken responsibility for them. Locks and failures as in files_table.h.
namespace filestore {

/// Remembers files; false when that failed. Before they are handed over: a module may take them at once.
bool RememberHandedOver(const IdList& fileIds);

/// Forgets the file of this key. Also older files of the same type, label and name: they must not replace it
/// later.
bool ForgetHandedOver(const FileKey& key);

/// False also when the statement failed.
bool IsHandedOver(std::uint64_t fileId);

/// The available files among those that are remembered, the oldest first, 1000 at most.
FileRows SelectHandedOver();

}  // namespace filestore

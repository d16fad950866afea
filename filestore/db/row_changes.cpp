#include "filestore/db/row_changes.h"

#include <ctime>

#include "filestore/db/database.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"

namespace filestore {

namespace {

unsigned long StatusTime(TakenUp when) {
    return when == TakenUp::AtOnce ? 0 : static_cast<unsigned long>(std::time(nullptr));
}

}  // namespace

void SetFileStatus(bool upstream, std::uint64_t fileId, const KelString& status, TakenUp when) {
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    const KelLock lock(database.mutex);
    FileStore::UpdateFileStatus(database.connection, fileId, status, StatusTime(when), 0);
}

bool SetFileStatus(bool upstream, std::uint64_t fileId, const KelString& expected, const KelString& status,
                   TakenUp when) {
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat("UPDATE %s SET %s = '%Q', %s = %lu WHERE %s = %lu AND "
                                               "%s = '%Q'",
                                               kTableFiles, kFileStatus, status, kLastStatusChangeTime,
                                               StatusTime(when), kFileId, fileId, kFileStatus, expected)) !=
           nullptr;
}

bool SetFileStatus(bool upstream, const IdList& fileIds, const KelString& status, TakenUp when) {
    if (fileIds.IsEmpty()) return true;
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat("UPDATE %s SET %s = '%Q', %s = %lu WHERE %s IN (%S)",
                                               kTableFiles, kFileStatus, status, kLastStatusChangeTime,
                                               StatusTime(when), kFileId, fileIds.Text())) != nullptr;
}

bool DeleteFileRow(bool upstream, std::uint64_t fileId) {
    const FileStoreDatabase database = FileStoreGetDatabase(upstream);
    const auto deleteFrom = [&](const char* table) {
        return database.connection.Query(
                   KelFormat("DELETE FROM %s WHERE %s = %lu", table, kFileId, fileId)) != nullptr;
    };
    const KelLock lock(database.mutex);
    return (upstream || deleteFrom(kTableTargets)) && deleteFrom(kTableFiles);
}

}  // namespace filestore

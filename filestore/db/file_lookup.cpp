#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"

using namespace filestore;

namespace {

unsigned long FirstFileId(DBConnection& connection, const KelString& statement) {
    const auto result = connection.Query(statement);
    return result && result->GetRowCount() > 0 ? static_cast<unsigned long>(result->GetInt64(0, kFileId)) : 0;
}

}  // namespace

unsigned long FileStore::FindFileInDatabase(DBConnection& connection, const KelString& fileType,
                                            const KelString& fileLabel, const KelString& fileName,
                                            const KelString& checksum) {
    const KelString key =
        KelFormat("SELECT %s FROM %s WHERE %s = '%Q' AND %s = '%Q' AND %s = '%Q'", kFileId, kTableFiles,
                  kFileType, fileType, kFileLabel, fileLabel, kFileName, fileName);
    if (checksum.empty()) return FirstFileId(connection, key + KelFormat(" ORDER BY %s ASC", kFileChecksum));
    return FirstFileId(
        connection, key + KelFormat(" AND (%s = '%Q' OR %s = '')", kFileChecksum, checksum, kFileChecksum));
}

unsigned long FileStore::FindFileFromUrl(const KelString& url) {
    return FirstFileId(*pDbConnectionUpstream,
                       KelFormat("SELECT %s FROM %s WHERE %s = '%Q'", kFileId, kTableFiles, kFileUrl, url));
}

void FileStore::UpdateFileStatus(DBConnection& connection, unsigned long fileId, const KelString& status,
                                 unsigned long time, int unicast) {
    if (unicast != 0)
        connection.Query(KelFormat("UPDATE %s SET %s = '%Q', %s = '%s', %s = %lu WHERE %s = %lu", kTableFiles,
                                   kFileStatus, status, kTransportMode, kTransportUnicast,
                                   kLastStatusChangeTime, time, kFileId, fileId));
    else
        connection.Query(KelFormat("UPDATE %s SET %s = '%Q', %s = %lu WHERE %s = %lu", kTableFiles,
                                   kFileStatus, status, kLastStatusChangeTime, time, kFileId, fileId));
}

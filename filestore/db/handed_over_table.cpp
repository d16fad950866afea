#include "filestore/db/handed_over_table.h"

#include "filestore/db/file_status.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kRemember[] =
    "INSERT OR IGNORE INTO HandedOver (FileId) SELECT FileId FROM Files WHERE FileId IN (%S)";
constexpr char kFind[] = "SELECT FileId FROM HandedOver WHERE FileId = %lu";
constexpr char kForget[] =
    "DELETE FROM HandedOver WHERE FileId IN (SELECT FileId FROM Files WHERE FileType = '%Q' AND FileLabel = "
    "'%Q' AND FileName = '%Q') AND FileId <= (SELECT MAX(FileId) FROM Files WHERE FileType = '%Q' AND "
    "FileLabel = '%Q' AND FileName = '%Q' AND FileChecksum = '%Q')";
// CROSS JOIN keeps the order of the tables: few files are remembered.
constexpr char kSelect[] =
    "SELECT %s FROM HandedOver CROSS JOIN Files ON Files.FileId = HandedOver.FileId WHERE FileStatus = '%s' "
    "ORDER BY HandedOver.FileId LIMIT 1000";

bool Change(const KelString& statement) {
    return filestore::Change(Side::Downstream, statement);
}

}  // namespace

bool RememberHandedOver(const IdList& fileIds) {
    return fileIds.IsEmpty() || Change(KelFormat(kRemember, fileIds.Text()));
}

bool ForgetHandedOver(const FileKey& key) {
    return Change(
        KelFormat(kForget, key.type, key.label, key.name, key.type, key.label, key.name, key.checksum));
}

bool IsHandedOver(std::uint64_t fileId) {
    const auto result = FileStoreGetDatabase(Side::Downstream).connection.Query(KelFormat(kFind, fileId));
    return result && result->GetRowCount() != 0;
}

FileRows SelectHandedOver() {
    const auto result = FileStoreGetDatabase(Side::Downstream)
                            .connection.Query(KelFormat(kSelect, FileStoreEntry::kColumns, kStatusAvailable));
    FileRows files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].Read(row);
    }
    return files;
}

}  // namespace filestore

#include "filestore/db/callback_table.h"

#include "filestore/db/database.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kOldest[] = "SELECT FileUrl, CallbackId FROM CallbackThread ORDER BY CallbackId ASC LIMIT 1";
constexpr char kCount[] = "SELECT COUNT (*) FROM CallbackThread";
constexpr char kInsert[] = "INSERT INTO CallbackThread (CallbackId, FileUrl) VALUES (%lu, '%Q')";
constexpr char kDelete[] = "DELETE FROM CallbackThread WHERE CallbackId = %u";

}  // namespace

void EnqueueArrivedFile(const KelString& url) {
    const FileStoreDatabase database = FileStoreGetCallbackDatabase();
    const KelLock lock(database.mutex);
    if (database.connection.ReadInteger("CallbackThread", "CallbackId", "FileUrl", url, -1) >= 0) return;
    const std::uint64_t id = database.sequence.GetId("CallbackThread", "CallbackId");
    database.connection.Query(KelFormat(kInsert, id, url));
}

KelString TakeArrivedFile() {
    const FileStoreDatabase database = FileStoreGetCallbackDatabase();
    const auto row = database.connection.Query(kOldest);
    if (!row || row->GetRowCount() != 1) return {};
    const KelLock lock(database.mutex);
    const bool removed =
        database.connection.Query(KelFormat(kDelete, row->GetUint32(0, "CallbackId"))) != nullptr;
    return removed ? row->GetString(0, "FileUrl") : KelString();
}

unsigned int CountArrivedFiles() {
    const auto row = FileStoreGetCallbackDatabase().connection.Query(kCount);
    return row && row->GetRowCount() == 1 ? static_cast<unsigned int>(row->GetInt64(0, std::size_t{0})) : 0;
}

}  // namespace filestore

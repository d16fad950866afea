#include "filestore/db/callback_table.h"

#include "filestore/db/database.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kNext[] =
    "SELECT CallbackId, FileUrl FROM CallbackThread WHERE CallbackId > %lu ORDER BY CallbackId ASC LIMIT 1";
constexpr char kCount[] = "SELECT COUNT (*) FROM CallbackThread";
constexpr char kInsert[] = "INSERT INTO CallbackThread (CallbackId, FileUrl) VALUES (%lu, '%Q')";
constexpr char kDelete[] = "DELETE FROM CallbackThread WHERE CallbackId = %lu";

}  // namespace

bool EnqueueArrivedFile(const KelString& url) {
    const FileStoreDatabase database = FileStoreGetCallbackDatabase();
    const KelLock lock(database.mutex);
    if (database.connection.ReadInteger("CallbackThread", "CallbackId", "FileUrl", url, -1) >= 0) return true;
    const std::uint64_t id = database.sequence.GetId("CallbackThread", "CallbackId");
    return id != 0 && database.connection.Query(KelFormat(kInsert, id, url)) != nullptr;
}

std::optional<ArrivedFile> NextArrivedFile(std::uint64_t after) {
    const auto result = FileStoreGetCallbackDatabase().connection.Query(KelFormat(kNext, after));
    if (!result || result->GetRowCount() != 1) return std::nullopt;
    RowReader row(*result, 0);
    ArrivedFile file;
    file.id = row.Unsigned();
    file.url = row.Text();
    return file;
}

bool RemoveArrivedFile(std::uint64_t id) {
    const FileStoreDatabase database = FileStoreGetCallbackDatabase();
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat(kDelete, id)) != nullptr;
}

unsigned int CountArrivedFiles() {
    const auto row = FileStoreGetCallbackDatabase().connection.Query(kCount);
    return row && row->GetRowCount() == 1 ? static_cast<unsigned int>(row->GetInt64(0, std::size_t{0})) : 0;
}

}  // namespace filestore

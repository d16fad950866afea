#include "filestore/db/information_table.h"

#include "filestore/db/database.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kRead[] = "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = '%Q'";
constexpr char kUpdate[] = "UPDATE DatabaseInformation SET FieldValue = '%Q' WHERE FieldName = '%Q'";
constexpr char kInsert[] = "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('%Q', '%Q')";
constexpr char kDelete[] = "DELETE FROM DatabaseInformation WHERE FieldName = '%Q'";

}  // namespace

std::optional<KelString> ReadInformation(const KelString& field) {
    const auto result = FileStoreGetDatabase(Side::Downstream).connection.Query(KelFormat(kRead, field));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return result->GetString(0, std::size_t{0});
}

bool WriteInformation(const KelString& field, const KelString& value) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Downstream);
    const KelLock lock(database.mutex);
    const KelString statement =
        ReadInformation(field) ? KelFormat(kUpdate, value, field) : KelFormat(kInsert, field, value);
    return database.connection.Query(statement) != nullptr;
}

bool DeleteInformation(const KelString& field) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Downstream);
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat(kDelete, field)) != nullptr;
}

}  // namespace filestore

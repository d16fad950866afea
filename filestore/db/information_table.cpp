#include "filestore/db/information_table.h"

#include "filestore/db/database.h"
#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"

namespace filestore {

namespace {

constexpr const char* kIdField = "DatabaseId";
constexpr std::size_t kIdBytes = 8;

constexpr char kRead[] = "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = '%Q'";
constexpr char kUpdate[] = "UPDATE DatabaseInformation SET FieldValue = '%Q' WHERE FieldName = '%Q'";
constexpr char kInsert[] = "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('%Q', '%Q')";
constexpr char kDelete[] = "DELETE FROM DatabaseInformation WHERE FieldName = '%Q'";

}  // namespace

std::optional<KelString> ReadInformation(const KelString& field, Side side) {
    const auto result = FileStoreGetDatabase(side).connection.Query(KelFormat(kRead, field));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return result->GetString(0, std::size_t{0});
}

bool WriteInformation(const KelString& field, const KelString& value, Side side) {
    const FileStoreDatabase database = FileStoreGetDatabase(side);
    const KelLock lock(database.mutex);
    const KelString statement =
        ReadInformation(field, side) ? KelFormat(kUpdate, value, field) : KelFormat(kInsert, field, value);
    return database.connection.Query(statement) != nullptr;
}

bool DeleteInformation(const KelString& field) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Downstream);
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat(kDelete, field)) != nullptr;
}

KelString DatabaseId(Side side) {
    const FileStoreDatabase database = FileStoreGetDatabase(side);
    const KelLock lock(database.mutex);
    const auto known = database.connection.Query(KelFormat(kRead, KelString(kIdField)));
    if (!known) return {};
    if (known->GetRowCount() != 0) return known->GetString(0, std::size_t{0});
    const KelString made = HexText(RandomBytes(kIdBytes));
    return database.connection.Query(KelFormat(kInsert, KelString(kIdField), made)) ? made : KelString();
}

}  // namespace filestore

#include "modules/console/withdrawal_store.h"

#include <utility>

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
const KelError kUnwritable{kKelErrorInternal,
                           "The withdrawal cannot be written to the console's database; see its log"};

constexpr char kOfKey[] =
    "FileChecksum = '%Q' AND FileName = '%Q' AND FileLabel = '%Q' AND FileType = '%Q' AND "
    "Publications.PublicationId <> '%Q'";

KelString OfKey(const FileKey& file, const KelString& except) {
    return KelFormat(kOfKey, file.checksum, file.name, file.label, file.type, except);
}

KelString InsertStatement(const StoreWithdrawal& withdrawal) {
    const FileKey& file = withdrawal.file;
    return KelFormat(
        "INSERT INTO StoreWithdrawals (FileType, FileLabel, FileName, FileChecksum, DevicePath, KeepContent, "
        "IsRemoval) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', %u, %u)",
        file.type, file.label, file.name, file.checksum, withdrawal.devicePath.SaveToXML(),
        unsigned{withdrawal.keepContent}, unsigned{withdrawal.isRemoval});
}

}  // namespace

KelStatus WithdrawalStore::Write(KelVector<KelString> statements,
                                 const KelVector<StoreWithdrawal>& withdrawals) {
    for (const StoreWithdrawal& withdrawal : withdrawals)
        statements.push_back(InsertStatement(withdrawal));
    if (!database_.Write(statements)) return kUnwritable;
    return {};
}

KelStatus WithdrawalStore::WithdrawPublication(const KelString& id, std::int64_t time,
                                               const KelVector<StoreWithdrawal>& withdrawals) {
    return Write({KelFormat("UPDATE PublicationTargets SET Status = 'withdrawn' WHERE PublicationId = '%Q' "
                            "AND Status IN ('pending', 'scheduled')",
                            id),
                  KelFormat("UPDATE Publications SET WithdrawTime = %gd, OrderTime = 0 WHERE PublicationId = "
                            "'%Q'",
                            time, id)},
                 withdrawals);
}

KelStatus WithdrawalStore::RemoveDevice(const KelString& guid,
                                        const KelVector<StoreWithdrawal>& withdrawals) {
    return Write(
        {KelFormat("UPDATE PublicationTargets SET Status = 'removed' WHERE GUID = '%Q' AND Status IN "
                   "('pending', 'scheduled')",
                   guid),
         KelFormat("DELETE FROM Devices WHERE GUID = '%Q'", guid)},
        withdrawals);
}

KelStatus WithdrawalStore::RemoveOrders(const KelString& id, const KelVector<StoreWithdrawal>& withdrawals) {
    return Write({KelFormat("UPDATE Publications SET OrderTime = 0 WHERE PublicationId = '%Q'", id)},
                 withdrawals);
}

KelResult<KelVector<StoreWithdrawal>> WithdrawalStore::List() {
    const auto rows = database_.Select(
        "SELECT WithdrawalId, FileType, FileLabel, FileName, FileChecksum, DevicePath, KeepContent, "
        "IsRemoval "
        "FROM StoreWithdrawals ORDER BY WithdrawalId");
    if (!rows) return kUnreadable;
    KelVector<StoreWithdrawal> withdrawals(rows->GetRowCount());
    for (std::size_t row = 0; row < withdrawals.size(); ++row) {
        StoreWithdrawal& withdrawal = withdrawals[row];
        withdrawal.id = rows->GetInt64(row, std::size_t{0});
        withdrawal.file = {rows->GetString(row, 1), rows->GetString(row, 2), rows->GetString(row, 3),
                           rows->GetString(row, 4)};
        if (const KelStatus loaded = withdrawal.devicePath.LoadFromXML(rows->GetString(row, 5)); !loaded)
            return loaded.Error();
        withdrawal.keepContent = rows->GetInt64(row, std::size_t{6}) != 0;
        withdrawal.isRemoval = rows->GetInt64(row, std::size_t{7}) != 0;
    }
    return withdrawals;
}

bool WithdrawalStore::Delete(std::int64_t id) {
    return database_.Write({KelFormat("DELETE FROM StoreWithdrawals WHERE WithdrawalId = %gd", id)});
}

KelResult<bool> WithdrawalStore::IsPublished(const FileKey& file, const KelString& except) {
    const auto rows = database_.Select(
        KelFormat("SELECT 1 FROM Publications WHERE WithdrawTime = 0 AND %S LIMIT 1", OfKey(file, except)));
    if (!rows) return kUnreadable;
    return rows->GetRowCount() != 0;
}

KelResult<bool> WithdrawalStore::IsContentPublished(const FileKey& file) {
    const auto rows = database_.Select(
        KelFormat("SELECT 1 FROM Publications WHERE WithdrawTime = 0 AND FileChecksum = '%Q' AND FileName = "
                  "'%Q' AND FileLabel = '%Q' LIMIT 1",
                  file.checksum, file.name, file.label));
    if (!rows) return kUnreadable;
    return rows->GetRowCount() != 0;
}

KelResult<KelVector<KelString>> WithdrawalStore::SelectTexts(const KelString& statement) {
    const auto rows = database_.Select(statement);
    if (!rows) return kUnreadable;
    KelVector<KelString> texts;
    for (std::size_t row = 0; row < rows->GetRowCount(); ++row)
        texts.push_back(rows->GetString(row, 0));
    return texts;
}

KelResult<KelVector<KelString>> WithdrawalStore::PendingDevices(const FileKey& file,
                                                                const KelString& except) {
    return SelectTexts(
        KelFormat("SELECT DISTINCT GUID FROM Publications JOIN PublicationTargets ON "
                  "PublicationTargets.PublicationId = Publications.PublicationId WHERE Status IN ('pending', "
                  "'scheduled') AND %S",
                  OfKey(file, except)));
}

KelResult<KelVector<OpenPublication>> WithdrawalStore::OpenPublications(const KelString& guid) {
    const auto rows = database_.Select(
        KelFormat("SELECT p.PublicationId, p.FileType, p.FileLabel, p.FileName, p.FileChecksum, p.OrderTime "
                  "FROM PublicationTargets AS t JOIN Publications AS p ON p.PublicationId = t.PublicationId "
                  "WHERE t.GUID = '%Q' AND t.Status IN ('pending', 'scheduled', 'withdrawn')",
                  guid));
    if (!rows) return kUnreadable;
    KelVector<OpenPublication> publications(rows->GetRowCount());
    for (std::size_t row = 0; row < publications.size(); ++row)
        publications[row] = {rows->GetString(row, 0),
                             {rows->GetString(row, 1), rows->GetString(row, 2), rows->GetString(row, 3),
                              rows->GetString(row, 4)},
                             rows->GetInt64(row, std::size_t{5}) != 0};
    return publications;
}

KelResult<KelVector<KelString>> WithdrawalStore::ConcludedOrders(const KelVector<KelString>& ids) {
    KelString list;
    for (const KelString& id : ids)
        list += KelFormat("%s'%Q'", list.empty() ? "" : ", ", id);
    const KelString among = list.empty() ? KelString() : KelFormat("AND p.PublicationId IN (%S) ", list);
    return SelectTexts(
        KelFormat("SELECT p.PublicationId FROM Publications AS p WHERE p.OrderTime <> 0 %SAND NOT EXISTS "
                  "(SELECT 1 FROM PublicationTargets AS t WHERE t.PublicationId = p.PublicationId AND "
                  "t.Status IN ('pending', 'scheduled'))",
                  among));
}

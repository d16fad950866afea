#include "filestore/db/withdrawals_table.h"

#include <ctime>

#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kInsert[] =
    "INSERT INTO Withdrawals (DeviceGUID, FileType, FileLabel, FileName, FileChecksum, DevicePath, "
    "KeepContent, IsRemoval) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', '%Q', %u, %u)";
// Times in the future were written before the clock was set back.
constexpr char kMarkDue[] = "UPDATE Withdrawals SET LastTryTime = 0 WHERE LastTryTime > %ld";
constexpr char kDue[] =
    "SELECT WithdrawalId, DeviceGUID, FileType, FileLabel, FileName, FileChecksum, DevicePath, KeepContent, "
    "IsRemoval FROM Withdrawals WHERE LastTryTime < %ld%S ORDER BY LastTryTime, WithdrawalId LIMIT %u";
constexpr char kNotOn[] = " AND DeviceGUID NOT IN (%S)";
constexpr char kDelete[] = "DELETE FROM Withdrawals WHERE WithdrawalId IN (%S)";
constexpr char kDeleteOf[] = "DELETE FROM Withdrawals WHERE DeviceGUID LIKE '%%/%S%%'";
constexpr char kPostpone[] = "UPDATE Withdrawals SET LastTryTime = %ld WHERE DeviceGUID IN (%S)";
// The path names that begin with a device URL, which "/" ends; "0" is the character behind that.
constexpr char kOfDevice[] = "DeviceGUID >= '%Q' AND DeviceGUID < '%Q0'";
constexpr char kTried[] = " AND LastTryTime > 0";
constexpr char kOfFile[] =
    " AND FileType = '%Q' AND FileLabel = '%Q' AND FileName = '%Q' AND FileChecksum IN ('', '%Q')";
constexpr char kAny[] = "SELECT WithdrawalId FROM Withdrawals WHERE %S LIMIT 1";
constexpr char kMakeDue[] = "UPDATE Withdrawals SET LastTryTime = 0 WHERE %S";

FileStoreDatabase Database() {
    return FileStoreGetDatabase(Side::Downstream);
}

bool Change(const KelString& statement) {
    return filestore::Change(Side::Downstream, statement);
}

bool HasAny(const KelString& condition) {
    const auto any = Database().connection.Query(KelFormat(kAny, condition));
    return any && any->GetRowCount() != 0;
}

FileWithdrawal Read(RowReader row) {
    FileWithdrawal withdrawal;
    withdrawal.withdrawalId = row.Unsigned();
    withdrawal.deviceGuid = row.Text();
    withdrawal.key.type = row.Text();
    withdrawal.key.label = row.Text();
    withdrawal.key.name = row.Text();
    withdrawal.key.checksum = row.Text();
    withdrawal.devicePath = row.Text();
    withdrawal.keepContent = row.Flag();
    withdrawal.isRemoval = row.Flag();
    return withdrawal;
}

}  // namespace

bool AddWithdrawal(const FileWithdrawal& withdrawal) {
    const FileKey& key = withdrawal.key;
    return Change(KelFormat(kInsert, withdrawal.deviceGuid, key.type, key.label, key.name, key.checksum,
                            withdrawal.devicePath, unsigned{withdrawal.keepContent},
                            unsigned{withdrawal.isRemoval}));
}

KelVector<FileWithdrawal> SelectDueWithdrawals(std::int64_t due, const KelVector<KelString>& except,
                                               unsigned int limit) {
    Change(KelFormat(kMarkDue, LatestPossibleTime(std::time(nullptr))));
    const KelString others = except.empty() ? KelString() : KelFormat(kNotOn, QuotedList(except));
    const auto result = Database().connection.Query(KelFormat(kDue, due, others, limit));
    KelVector<FileWithdrawal> withdrawals;
    for (std::size_t i = 0; result && i < result->GetRowCount(); ++i)
        withdrawals.push_back(Read(RowReader(*result, i)));
    return withdrawals;
}

bool IsBeingWithdrawn(const FileKey& key, const KelString& deviceUrl) {
    return HasAny(KelFormat(kOfDevice, deviceUrl, deviceUrl) +
                  KelFormat(kOfFile, key.type, key.label, key.name, key.checksum));
}

bool DeleteWithdrawals(const IdList& withdrawalIds) {
    return withdrawalIds.IsEmpty() || Change(KelFormat(kDelete, withdrawalIds.Text()));
}

bool DeleteWithdrawalsOf(const KelString& guid) {
    return Change(KelFormat(kDeleteOf, guid));
}

bool PostponeWithdrawals(const KelVector<KelString>& devices, std::int64_t now) {
    return devices.empty() || Change(KelFormat(kPostpone, now, QuotedList(devices)));
}

bool MakeWithdrawalsDue(const KelString& deviceUrl) {
    const KelString waiting = KelFormat(kOfDevice, deviceUrl, deviceUrl) + kTried;
    return HasAny(waiting) && Change(KelFormat(kMakeDue, waiting));
}

}  // namespace filestore

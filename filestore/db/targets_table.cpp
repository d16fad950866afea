#include "filestore/db/targets_table.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/withdrawals_table.h"
#include "kel/format.h"
#include "kel/text.h"

namespace filestore {

namespace {

constexpr char kMarkDue[] =
    "UPDATE Targets SET IsDue = 1 WHERE CanBeAnnounced = 1 AND IsDue = 0 AND LastNotifyTime %s %ld";
// The order is that of the indexes WorkAnnounce..., which the join must not change. IsMoreUrgent has it, too.
constexpr char kDue[] =
    "SELECT %s, %s FROM Targets %s CROSS JOIN Files ON Files.FileId = Targets.FileId WHERE CanBeAnnounced = "
    "1 AND IsDue = 1 AND LastStatusChangeTime NOT BETWEEN %ld AND %ld %S ORDER BY FilePriority DESC, ((0.33 "
    "* FileCreateTime) + (0.67 * LastNotifyTime)) ASC, Targets.FileId ASC LIMIT %u";
constexpr char kInOrder[] = "";
constexpr char kBySize[] = "INDEXED BY WorkAnnounceLarge";
constexpr char kFindLargeBehind[] =
    "SELECT TargetId FROM Targets INDEXED BY WorkAnnounceLarge WHERE CanBeAnnounced = 1 AND IsDue = 1 AND "
    "DeviceGUID <> '' AND FileBytes >= %u LIMIT 1 OFFSET %u";
/// So many rows are quickly sorted. Among more, one is soon found in order.
constexpr unsigned int kMostSorted = 10000;
constexpr char kOnThisDevice[] = "AND DeviceGUID = ''";
// A withdrawal must not meet what is published after it.
constexpr char kKnowsWithdrawals[] =
    "NOT EXISTS (SELECT 1 FROM Withdrawals WHERE Withdrawals.DeviceGUID = Targets.DeviceGUID)";
constexpr char kOnOtherDevices[] = "AND DeviceGUID <> '' AND %s%S%S";
constexpr char kPassesClosedWindow[] = " AND FileBypass = 1";
constexpr char kNotInMulticast[] = " AND MulticastTransferToBeStarted = 0";
constexpr char kGoesByMulticast[] =
    " AND FileBypass = 0 AND FileBytes >= %u AND MulticastRetryNumber < %u AND FileStatus = '%s'";
constexpr char kToInvite[] =
    "SELECT %s FROM Targets WHERE FileId = %lu AND CanBeAnnounced = 1 AND IsDue = 1 AND DeviceGUID <> '' AND "
    "%s";
constexpr char kOldest[] = "SELECT min (TargetCreateTime) FROM Targets WHERE FileId = %lu";
constexpr char kNotOn[] = " AND DeviceGUID NOT IN (%S)";
constexpr char kOne[] =
    "SELECT %s, %s FROM Files JOIN Targets ON Files.FileId = Targets.FileId WHERE Files.FileId = %lu AND "
    "TargetId = "
    "%lu LIMIT 1";
constexpr char kOfThisDevice[] = "SELECT %s FROM Targets WHERE FileId = %lu AND DeviceGUID = ''";
constexpr char kOfDevice[] = "SELECT %s FROM Targets WHERE FileId = %lu AND DeviceGUID LIKE '%Q%'";
constexpr char kOfFile[] = "SELECT %s FROM Targets WHERE FileId = %lu";
constexpr char kAny[] = "SELECT TargetId FROM Targets WHERE FileId = %lu LIMIT 1";
constexpr char kOfUrl[] =
    "SELECT 1 FROM Files JOIN Targets ON Targets.FileId = Files.FileId WHERE FileURL = '%Q' AND DeviceGUID "
    "LIKE "
    "'%/%Q%' LIMIT 1";
constexpr char kOfKey[] =
    "SELECT 1 FROM Files JOIN Targets ON Targets.FileId = Files.FileId WHERE FileType = '%Q' AND FileLabel = "
    "'%Q' AND FileName = '%Q' AND FileChecksum = '%Q' AND DeviceGUID LIKE '%/%Q%' LIMIT 1";
constexpr char kCount[] = "SELECT Targets FROM TargetCount";
constexpr char kOldestOfAll[] = "SELECT MIN(TargetCreateTime) FROM Targets";
// Times up to 9 put a target behind those that were never announced; see kDueSinceRequest.
constexpr char kNotifiable[] =
    "SELECT Files.FileId, FileType, FileLabel, FileName, FileChecksum, FileStatus, FileSize, Priority, SUM "
    "(LastNotifyTime < 10), SUM (LastNotifyTime > %ld), SUM (LastNotifyTime BETWEEN 10 AND %ld), MIN "
    "(TargetCreateTime) AS Oldest FROM Targets JOIN Files ON Files.FileId = Targets.FileId GROUP BY "
    "Targets.FileId ORDER BY Oldest, Files.FileId LIMIT %u OFFSET %lu";
constexpr char kLatestNotifyTime[] = "SELECT MAX(LastNotifyTime) FROM Targets WHERE DeviceGUID = '%Q'";
constexpr char kAll[] = "SELECT %s FROM Targets";

constexpr char kInsert[] =
    "INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath, TargetCreateTime, LastNotifyTime, "
    "WakeUpDevice) "
    "VALUES (%lu, %lu, '%Q', '%Q', %ld, %ld, %u)";
constexpr char kUpdate[] =
    "UPDATE Targets SET DeviceGUID = '%Q', DevicePath = '%Q', LastNotifyTime = %ld, IsDue = %u, WakeUpDevice "
    "= %u WHERE "
    "TargetId = %lu";
// The path names that begin with a device URL, which "/" ends; "0" is the character behind that.
constexpr char kFailedOfDevice[] =
    "DeviceGUID >= '%Q' AND DeviceGUID < '%Q0' AND LastNotifyTime BETWEEN 1 AND %ld";
constexpr char kAnyFailed[] = "SELECT TargetId FROM Targets WHERE %S LIMIT 1";
constexpr char kMakeDue[] = "UPDATE Targets SET LastNotifyTime = 0, IsDue = 1 WHERE %S";
constexpr char kSetNotifyTime[] = "UPDATE Targets SET LastNotifyTime = %ld, IsDue = %u WHERE TargetId = %lu";
constexpr char kPostponeFile[] =
    "UPDATE Targets SET LastNotifyTime = %ld, IsDue = 0 WHERE FileId = %lu AND LastNotifyTime < %ld";
constexpr char kSetDevice[] = "UPDATE Targets SET DeviceGUID = '%Q', DevicePath = '%Q' WHERE TargetId = %lu";
constexpr char kDeleteOfDevice[] = "DELETE FROM Targets WHERE FileId = %lu AND DeviceGUID LIKE '%/%Q%'";
constexpr char kNamesOfDevice[] = "SELECT DISTINCT DeviceGUID FROM Targets WHERE DeviceGUID LIKE '%/%Q%'";
constexpr char kDeleteNamed[] = "DELETE FROM Targets WHERE DeviceGUID IN (%S)";
constexpr char kDeleteAll[] = "DELETE FROM Targets WHERE TargetId IN (%S)";
constexpr char kSetNotifyTimes[] =
    "UPDATE Targets SET LastNotifyTime = %ld, IsDue = 0 WHERE TargetId IN (%S)";
constexpr char kPostponeDevices[] =
    "UPDATE Targets SET LastNotifyTime = %ld, IsDue = 0 WHERE DeviceGUID IN (%S)";

FileStoreDatabase Database() {
    return FileStoreGetDatabase(Side::Downstream);
}

bool Change(const KelString& statement) {
    return filestore::Change(Side::Downstream, statement);
}

KelVector<FileTarget> SelectWithFiles(const KelString& statement) {
    const auto result = Database().connection.Query(statement);
    KelVector<FileTarget> rows(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RowReader row(*result, i);
        rows[i].file.Read(row);
        rows[i].target.Read(row);
    }
    return rows;
}

std::optional<KelVector<FileStoreTarget>> Select(const KelString& statement) {
    const auto result = Database().connection.Query(statement);
    if (!result) return std::nullopt;
    KelVector<FileStoreTarget> targets(result->GetRowCount());
    for (std::size_t i = 0; i < targets.size(); ++i) {
        RowReader row(*result, i);
        targets[i].Read(row);
    }
    return targets;
}

/// A target that was never announced, or is to be announced again, needs no mark.
unsigned int IsDueAt(std::int64_t notifyTime) {
    return notifyTime == 0 ? 1 : 0;
}

}  // namespace

void FileStoreTarget::Read(RowReader& row) {
    TargetId = row.Unsigned();
    FileId = row.Unsigned();
    DeviceGUID = row.Text();
    DevicePath = row.Text();
    TargetCreateTime = row.Number();
    LastNotifyTime = row.Number();
    WakeUpDevice = row.Unsigned32();
}

static KelVector<FileTarget> SelectDue(const DueTargets& wanted, const char* index,
                                       const KelString& condition) {
    return SelectWithFiles(KelFormat(kDue, FileStoreEntry::kColumns, FileStoreTarget::kColumns, index,
                                     wanted.due, LatestPossibleTime(std::time(nullptr)), condition,
                                     wanted.limit));
}

static KelVector<FileTarget> SelectOnOthers(const DueTargets& wanted, const char* index,
                                            const KelString& passing) {
    const KelString except =
        wanted.except.empty() ? KelString() : KelFormat(kNotOn, QuotedList(wanted.except));
    return SelectDue(wanted, index, KelFormat(kOnOtherDevices, kKnowsWithdrawals, passing, except));
}

/// What may be sent to a group while the window is closed. Most targets are those of small files.
static KelVector<FileTarget> SelectForGroups(const DueTargets& wanted, const MulticastLimits& limits) {
    const auto more = Database().connection.Query(KelFormat(kFindLargeBehind, limits.leastSize, kMostSorted));
    const bool areFew = more && more->GetRowCount() == 0;
    return SelectOnOthers(
        wanted, areFew ? kBySize : kInOrder,
        kNotInMulticast + KelFormat(kGoesByMulticast, limits.leastSize, limits.retries, kStatusAvailable));
}

static bool IsMoreUrgent(const FileTarget& left, const FileTarget& right) {
    const auto age = [](const FileTarget& row) {
        return 0.33 * static_cast<double>(row.file.CreateTime) +
               0.67 * static_cast<double>(row.target.LastNotifyTime);
    };
    if (left.file.Priority != right.file.Priority) return left.file.Priority > right.file.Priority;
    if (age(left) != age(right)) return age(left) < age(right);
    return left.file.FileId < right.file.FileId;
}

KelVector<FileTarget> SelectDueTargets(const DueTargets& wanted) {
    if (wanted.where == DueTargets::Where::ThisDevice) return SelectDue(wanted, kInOrder, kOnThisDevice);
    const KelString passing = wanted.windowClosed ? kPassesClosedWindow : "";
    if (!wanted.multicast) return SelectOnOthers(wanted, kInOrder, passing);
    KelVector<FileTarget> rows = SelectOnOthers(wanted, kInOrder, kNotInMulticast + passing);
    if (!wanted.windowClosed) return rows;
    KelVector<FileTarget> large = SelectForGroups(wanted, *wanted.multicast);
    KelVector<FileTarget> merged;
    std::merge(std::move_iterator(rows.begin()), std::move_iterator(rows.end()),
               std::move_iterator(large.begin()), std::move_iterator(large.end()), std::back_inserter(merged),
               IsMoreUrgent);
    if (merged.size() > wanted.limit) merged.resize(wanted.limit);
    return merged;
}

bool MarkDueTargets(std::int64_t due, std::int64_t latest) {
    const KelLock lock(Database().mutex);
    return Change(KelFormat(kMarkDue, "<", due)) && Change(KelFormat(kMarkDue, ">", latest));
}

KelVector<FileTarget> SelectTarget(std::uint64_t fileId, std::uint64_t targetId) {
    return SelectWithFiles(
        KelFormat(kOne, FileStoreEntry::kColumns, FileStoreTarget::kColumns, fileId, targetId));
}

std::optional<KelVector<FileStoreTarget>> FindTargets(std::uint64_t fileId, const KelString& device) {
    if (device.empty()) return Select(KelFormat(kOfThisDevice, FileStoreTarget::kColumns, fileId));
    return Select(KelFormat(kOfDevice, FileStoreTarget::kColumns, fileId, device));
}

std::optional<KelVector<FileStoreTarget>> FindTargets(std::uint64_t fileId) {
    return Select(KelFormat(kOfFile, FileStoreTarget::kColumns, fileId));
}

KelVector<FileStoreTarget> SelectMulticastTargets(std::uint64_t fileId) {
    return Select(KelFormat(kToInvite, FileStoreTarget::kColumns, fileId, kKnowsWithdrawals))
        .value_or(KelVector<FileStoreTarget>());
}

std::optional<std::int64_t> OldestTargetTime(std::uint64_t fileId) {
    const auto result = Database().connection.Query(KelFormat(kOldest, fileId));
    if (!result || result->GetRowCount() == 0 || result->GetString(0, std::size_t{0}).empty())
        return std::nullopt;
    return result->GetInt64(0, std::size_t{0});
}

bool HasTargets(std::uint64_t fileId) {
    const auto result = Database().connection.Query(KelFormat(kAny, fileId));
    return result && result->GetRowCount() != 0;
}

KelVector<NotifiableFile> SelectNotifiableFiles(std::int64_t now, const ListRange& range) {
    const auto result =
        Database().connection.Query(KelFormat(kNotifiable, now, now, range.limit, range.offset));
    KelVector<NotifiableFile> files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        NotifiableFile& file = files[i];
        file.fileId = row.Unsigned();
        file.key.type = row.Text();
        file.key.label = row.Text();
        file.key.name = row.Text();
        file.key.checksum = row.Text();
        file.status = row.Text();
        file.size = row.Number();
        file.priority = static_cast<std::int32_t>(row.Number());
        file.waiting = row.Number();
        file.notified = row.Number();
        file.failed = row.Number();
        file.oldest = row.Number();
    }
    return files;
}

std::int64_t CountTargets() {
    const auto result = Database().connection.Query(kCount);
    return result && result->GetRowCount() != 0 ? result->GetInt64(0, std::size_t{0}) : 0;
}

std::int64_t OldestTargetTime() {
    const auto result = Database().connection.Query(kOldestOfAll);
    return result && result->GetRowCount() != 0 ? result->GetInt64(0, std::size_t{0}) : 0;
}

std::optional<std::int64_t> LatestNotifyTime(const KelString& deviceGuid) {
    const auto result = Database().connection.Query(KelFormat(kLatestNotifyTime, deviceGuid));
    if (!result) return std::nullopt;
    return result->GetInt64(0, std::size_t{0});
}

KelVector<FileStoreTarget> SelectAllTargets() {
    return Select(KelFormat(kAll, FileStoreTarget::kColumns)).value_or(KelVector<FileStoreTarget>());
}

std::uint64_t StoreTarget(std::uint64_t fileId, const FileStoreTarget& target) {
    if (target.TargetId != 0)
        return Change(KelFormat(kUpdate, target.DeviceGUID, target.DevicePath, target.LastNotifyTime,
                                IsDueAt(target.LastNotifyTime), target.WakeUpDevice, target.TargetId))
                   ? target.TargetId
                   : 0;
    const std::uint64_t targetId = Database().sequence.GetId("Targets", "TargetId");
    if (targetId == 0) return 0;
    return Change(KelFormat(kInsert, targetId, fileId, target.DeviceGUID, target.DevicePath,
                            target.TargetCreateTime, target.LastNotifyTime, target.WakeUpDevice))
               ? targetId
               : 0;
}

bool RecordTargets(std::uint64_t fileId, const KelVector<FileStoreTarget>& targets) {
    if (targets.empty()) return true;
    const FileStoreDatabase database = Database();
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    for (const FileStoreTarget& target : targets)
        StoreTarget(fileId, target);
    return transaction.Commit();
}

bool SaveFileWithTargets(FileStoreEntry& file, const KelVector<FileStoreTarget>& targets) {
    const FileStoreDatabase database = Database();
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    if (!transaction.IsOpen()) return false;
    const bool saved = file.FileId == 0 ? file.CreateInDatabase(Side::Downstream) != 0
                                        : file.SaveToDatabase(Side::Downstream);
    return saved &&
           std::all_of(
               targets.begin(), targets.end(),
               [&file](const FileStoreTarget& target) { return StoreTarget(file.FileId, target) != 0; }) &&
           transaction.Commit();
}

bool MakeTargetsDue(const KelString& deviceUrl, std::int64_t now) {
    // Every call of a device comes here: it costs a write only when something waits.
    const KelString failed = KelFormat(kFailedOfDevice, deviceUrl, deviceUrl, now);
    const auto waiting = Database().connection.Query(KelFormat(kAnyFailed, failed));
    return waiting && waiting->GetRowCount() != 0 && Change(KelFormat(kMakeDue, failed));
}

bool SetNotifyTime(std::uint64_t targetId, std::int64_t time) {
    return Change(KelFormat(kSetNotifyTime, time, IsDueAt(time), targetId));
}

bool PostponeTargets(std::uint64_t fileId, std::int64_t time) {
    return Change(KelFormat(kPostponeFile, time, fileId, time));
}

bool SetTargetDevice(const FileStoreTarget& target) {
    return Change(KelFormat(kSetDevice, target.DeviceGUID, target.DevicePath, target.TargetId));
}

bool DeleteTarget(std::uint64_t targetId) {
    IdList one;
    one.Add(targetId);
    return Change(KelFormat(kDeleteAll, one.Text()));
}

std::optional<bool> IsTargetOfUrl(const KelString& url, const KelString& guid) {
    const auto named = Database().connection.Query(KelFormat(kOfUrl, url, guid));
    if (!named) return std::nullopt;
    if (named->GetRowCount() != 0) return true;
    const auto place = ParseStoredUrl(url);
    if (!place || place->side != Side::Downstream) return false;
    const FileKey& key = place->key;
    const auto stored =
        Database().connection.Query(KelFormat(kOfKey, key.type, key.label, key.name, key.checksum, guid));
    if (!stored) return std::nullopt;
    return stored->GetRowCount() != 0;
}

bool DeleteTargetsOfDevice(std::uint64_t fileId, const KelString& guid) {
    return Change(KelFormat(kDeleteOfDevice, fileId, guid));
}

KelVector<KelString> NamesOfTargets(const KelString& guid) {
    KelVector<KelString> names;
    const auto result = Database().connection.Query(KelFormat(kNamesOfDevice, guid));
    for (std::size_t i = 0; result && i < result->GetRowCount(); ++i)
        names.push_back(result->GetString(i, std::size_t{0}));
    return names;
}

KelVector<KelString> DeleteTargetsOfDevice(const KelString& guid) {
    const FileStoreDatabase database = Database();
    const KelLock lock(database.mutex);
    KelVector<KelString> names = NamesOfTargets(guid);
    if (!names.empty() && !Change(KelFormat(kDeleteNamed, QuotedList(names)))) names.clear();
    return names;
}

bool AnnouncementOutcome::IsEmpty() const {
    return delivered.IsEmpty() && announced.IsEmpty() && failed.IsEmpty() && failedDevices.empty() &&
           putOff.IsEmpty() && withdrawn.IsEmpty();
}

void AnnouncementOutcome::Append(const AnnouncementOutcome& other) {
    delivered.Append(other.delivered);
    announced.Append(other.announced);
    failed.Append(other.failed);
    failedDevices.insert(failedDevices.end(), other.failedDevices.begin(), other.failedDevices.end());
    putOff.Append(other.putOff);
    withdrawn.Append(other.withdrawn);
}

bool WriteAnnouncements(const AnnouncementOutcome& outcome, const AnnouncementTimes& times) {
    const auto setTime = [](const IdList& ids, std::int64_t time) {
        return ids.IsEmpty() || Change(KelFormat(kSetNotifyTimes, time, ids.Text()));
    };
    return (outcome.delivered.IsEmpty() || Change(KelFormat(kDeleteAll, outcome.delivered.Text()))) &&
           setTime(outcome.failed, times.now) &&
           (outcome.failedDevices.empty() ||
            Change(KelFormat(kPostponeDevices, times.now, QuotedList(outcome.failedDevices)))) &&
           PostponeWithdrawals(outcome.failedDevices, times.now) && DeleteWithdrawals(outcome.withdrawn) &&
           setTime(outcome.announced, times.announced) && setTime(outcome.putOff, times.putOff);
}

bool RecordAnnouncements(const AnnouncementOutcome& outcome, const AnnouncementTimes& times) {
    const FileStoreDatabase database = Database();
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    return transaction.IsOpen() && WriteAnnouncements(outcome, times) && transaction.Commit();
}

}  // namespace filestore

#include "filestore/db/removal_rule.h"

#include <array>
#include <utility>

#include "filestore/db/file_status.h"
#include "kel/format.h"

namespace filestore {

namespace {

// The rules. Each statement contains its whole rule and searches one range of an index, which the shipped
// schema holds for it: rows that stay are not read, however many there are.

constexpr char kSelect[] =
    "SELECT %s FROM Files INDEXED BY %s WHERE %S AND %S AND Files.FileId NOT IN (%S) LIMIT %u";
constexpr char kRecheck[] = "SELECT %s FROM Files WHERE Files.FileId IN (%S) AND %S";

constexpr char kDelivered[] =
    "FileStatus IN ('%s', '%s') AND %S AND (ExternalFile = 0) AND ((Upstream <> 0) OR (Upstream = 0 AND "
    "Acknowledged <> 0 %S) OR (Upstream = 0 AND FileType = 'PackagerStatus')) AND %s";
constexpr char kSent[] =
    "FileStatus IN ('%s', '%s', '%s') AND %S AND (ExternalFile = 0) AND ((Upstream <> 0 %S) OR (Upstream = 0 "
    "AND Acknowledged <> 0 %S))";
constexpr char kOutdated[] =
    "(CreateTime < %ld) AND ((KeepCopy & %u) = 0) AND (ExternalFile = 0) AND (MulticastTransferToBeStarted = "
    "0) AND (FileStatus <> '%s')";
constexpr char kUnusedPackage[] =
    "(((LastRequestTime < %ld) AND (LastRequestTime <> 0)) OR ((CreateTime < %ld) AND (LastRequestTime = "
    "0))) AND (ExternalFile = 0) AND (MulticastTransferToBeStarted = 0) AND (FileStatus <> '%s') AND %s";
/// As the index has it.
constexpr char kPackageTypes[] =
    "FileType IN ('OperationalRulePackage', 'PackagerCopyAdministratedPackage', "
    "'PackagerPublishPackageToMaster', 'OperationalRuleNetworkPackage', 'OperationalRelayPackage', "
    "'OperationalRuleNetworkPackageInfo')";
constexpr char kWithoutTargets[] =
    "NOT EXISTS (SELECT 1 FROM Targets WHERE Targets.FileId = Files.FileId) AND NOT EXISTS (SELECT 1 FROM "
    "HandedOver WHERE HandedOver.FileId = Files.FileId)";
constexpr char kTaken[] = " AND NOT EXISTS (SELECT 1 FROM HandedOver WHERE HandedOver.FileId = Files.FileId)";

constexpr char kNotKept[] = "((KeepCopy & %u) = 0)";
constexpr char kNotKeptOrLarger[] = "(((KeepCopy & %u) = 0) OR FileSize > %gu)";
constexpr char kOlder[] = " AND CreateTime < %ld";

// Ranges. KeepCopy has three bits: the values without that of the role are few. Others are read one by one.
constexpr char kWithoutBit[] = "KeepCopy IN (%S)";
constexpr char kOtherValues[] = "KeepCopy > 7";
constexpr char kLarge[] = "ExternalFile = 0 AND KeepCopy <> 0 AND FileSize > %gu";
constexpr char kOfStatuses[] = "FileStatus IN (%S) AND ";
constexpr std::uint32_t kKeepValues = 8;

constexpr char kSomeTargets[] =
    "DELETE FROM Targets WHERE TargetId IN (SELECT TargetId FROM Targets WHERE FileId IN (%S) LIMIT %u)";
constexpr char kAnyTarget[] = "SELECT TargetId FROM Targets WHERE FileId IN (%S) LIMIT 1";
constexpr char kOld[] = "TargetCreateTime < %ld AND FileId NOT IN (%S)";
constexpr char kSomeOldTargets[] =
    "DELETE FROM Targets WHERE TargetId IN (SELECT TargetId FROM Targets INDEXED BY TargetsAge WHERE %S "
    "LIMIT "
    "%u)";
constexpr char kAnyOldTarget[] = "SELECT TargetId FROM Targets INDEXED BY TargetsAge WHERE %S LIMIT 1";
constexpr char kDeleteArrived[] = "DELETE FROM CallbackThread WHERE FileUrl IN (%S)";

KelString NotKept(const KeptFiles& kept) {
    return kept.largest == 0 ? KelFormat(kNotKept, kept.role)
                             : KelFormat(kNotKeptOrLarger, kept.role, kept.largest);
}

KelString Older(std::optional<std::int64_t> before) {
    return before ? KelFormat(kOlder, *before) : KelString();
}

/// The values of KeepCopy without the bit of a role.
KelString ValuesWithout(std::uint32_t role) {
    IdList values;
    for (std::uint32_t value = 0; value < kKeepValues; ++value)
        if ((value & role) == 0) values.Add(value);
    return values.Text();
}

FileRows Read(Side side, const KelString& statement) {
    const auto result = FileStoreGetDatabase(side).connection.Query(statement);
    FileRows files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].Read(row);
    }
    return files;
}

bool HasRows(const KelString& statement) {
    const auto result = FileStoreGetDatabase(Side::Downstream).connection.Query(statement);
    return result && result->GetRowCount() != 0;
}

}  // namespace

RemovalRule RemovalRule::Delivered(Side side, const KeptFiles& kept,
                                   std::optional<std::int64_t> deliveredBefore,
                                   std::optional<std::int64_t> sentBefore) {
    const bool isUpstream = side == Side::Upstream;
    KelVector<KelString> statuses = {kStatusAvailable, kStatusNotRelaysChild};
    if (isUpstream) statuses.push_back(kStatusPackedFile);
    RemovalRule rule(side, isUpstream
                               ? KelFormat(kSent, kStatusAvailable, kStatusNotRelaysChild, kStatusPackedFile,
                                           NotKept(kept), Older(sentBefore), Older(deliveredBefore))
                               : KelFormat(kDelivered, kStatusAvailable, kStatusNotRelaysChild, NotKept(kept),
                                           Older(deliveredBefore), kWithoutTargets));
    const KelString ofStatuses = KelFormat(kOfStatuses, QuotedList(statuses));
    const KelString delivered = ofStatuses + "ExternalFile = 0 AND Upstream = 0 AND Acknowledged <> 0 AND ";
    const KelString sent = ofStatuses + "ExternalFile = 0 AND Upstream <> 0 AND ";
    for (const KelString& range :
         {KelFormat(kWithoutBit, ValuesWithout(kept.role)), KelString(kOtherValues)}) {
        rule.ranges_.push_back({"CleanDelivered", delivered + range + Older(deliveredBefore)});
        rule.ranges_.push_back({"CleanSent", sent + range + Older(isUpstream ? sentBefore : std::nullopt)});
    }
    if (kept.largest != 0) rule.ranges_.push_back({"CleanLarge", KelFormat(kLarge, kept.largest)});
    if (!isUpstream)
        rule.ranges_.push_back({"CleanPackagerStatus", ofStatuses + "FileType = 'PackagerStatus'"});
    return rule;
}

RemovalRule RemovalRule::Outdated(Side side, const KeptFiles& kept, std::int64_t before,
                                  bool waitsForConsumers) {
    RemovalRule rule(side, KelFormat(kOutdated, before, kept.role, kStatusMulticastListening));
    if (side == Side::Downstream && waitsForConsumers) rule.condition_ += kTaken;
    for (const KelString& range : {KelFormat(kWithoutBit, ValuesWithout(kept.role)), KelString(kOtherValues)})
        rule.ranges_.push_back({"CleanOutdated", "ExternalFile = 0 AND " + range + Older(before)});
    return rule;
}

RemovalRule RemovalRule::UnusedPackages(std::int64_t before, bool waitsForConsumers) {
    RemovalRule rule(Side::Downstream,
                     KelFormat(kUnusedPackage, before, before, kStatusMulticastListening, kPackageTypes));
    if (waitsForConsumers) rule.condition_ += kTaken;
    const KelString packages = KelString("ExternalFile = 0 AND ") + kPackageTypes;
    rule.ranges_.push_back(
        {"CleanPackages", packages + KelFormat(" AND LastRequestTime BETWEEN 1 AND %ld", before - 1)});
    rule.ranges_.push_back({"CleanPackages", packages + " AND LastRequestTime = 0" + Older(before)});
    return rule;
}

FileRows RemovalRule::Select(const IdList& except, unsigned int limit) const {
    for (const Range& range : ranges_) {
        FileRows files = Read(side_, KelFormat(kSelect, FileStoreEntry::kColumns, range.index,
                                               range.condition, condition_, except.Text(), limit));
        if (!files.empty()) return files;
    }
    return {};
}

FileRows RemovalRule::Recheck(const IdList& fileIds) const {
    return fileIds.IsEmpty()
               ? FileRows()
               : Read(side_, KelFormat(kRecheck, FileStoreEntry::kColumns, fileIds.Text(), condition_));
}

bool DeleteSomeTargets(const IdList& fileIds, unsigned int limit, bool& isDone) {
    const bool isDeleted = Change(Side::Downstream, KelFormat(kSomeTargets, fileIds.Text(), limit));
    isDone = !HasRows(KelFormat(kAnyTarget, fileIds.Text()));
    return isDeleted;
}

bool DeleteOldTargets(std::int64_t before, const IdList& exceptFiles, unsigned int limit, bool& isDone) {
    const KelString old = KelFormat(kOld, before, exceptFiles.Text());
    isDone = !HasRows(KelFormat(kAnyOldTarget, old));
    if (isDone) return true;
    return Change(Side::Downstream, KelFormat(kSomeOldTargets, old, limit));
}

bool RemoveArrivedFiles(const FileRows& files) {
    KelVector<KelString> urls;
    for (const FileStoreEntry& file : files)
        if (!file.FileURL.empty()) urls.push_back(file.FileURL);
    if (urls.empty()) return true;
    const FileStoreDatabase database = FileStoreGetCallbackDatabase();
    const KelLock lock(database.mutex);
    return database.connection.Query(KelFormat(kDeleteArrived, QuotedList(urls))) != nullptr;
}

}  // namespace filestore

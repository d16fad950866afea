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
    "SELECT %s FROM Files INDEXED BY %s WHERE %S AND %S AND Files.FileId NOT IN (%S)%S LIMIT %u";
constexpr char kByAge[] = " AND CreateTime >= %ld ORDER BY CreateTime";
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

// Ranges. KeepCopy has three bits, so that the values without that of the role are few; each has a range of
// its own, which holds its files by age. Other values are read one by one.
constexpr char kKeepValue[] = " AND KeepCopy = %u";
constexpr char kOtherValues[] = " AND KeepCopy > 7";
constexpr char kLarge[] = "ExternalFile = 0 AND KeepCopy <> 0 AND FileSize > %gu";
constexpr char kOfStatus[] = "FileStatus = '%S' AND ";
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
    for (const KelString& status : statuses) {
        const KelString ofStatus = KelFormat(kOfStatus, status);
        rule.AddRanges("CleanDelivered", ofStatus + "ExternalFile = 0 AND Upstream = 0 AND Acknowledged <> 0",
                       kept, deliveredBefore);
        rule.AddRanges("CleanSent", ofStatus + "ExternalFile = 0 AND Upstream <> 0", kept,
                       isUpstream ? sentBefore : std::nullopt);
        if (!isUpstream)
            rule.ranges_.push_back({"CleanPackagerStatus", ofStatus + "FileType = 'PackagerStatus'"});
    }
    if (kept.largest != 0) rule.ranges_.push_back({"CleanLarge", KelFormat(kLarge, kept.largest)});
    return rule;
}

RemovalRule RemovalRule::Outdated(Side side, const KeptFiles& kept, std::int64_t before,
                                  bool waitsForConsumers) {
    RemovalRule rule(side, KelFormat(kOutdated, before, kept.role, kStatusMulticastListening));
    if (side == Side::Downstream && waitsForConsumers) rule.condition_ += kTaken;
    rule.AddRanges("CleanOutdated", "ExternalFile = 0", kept, before);
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

void RemovalRule::AddRanges(const char* index, const KelString& condition, const KeptFiles& kept,
                            std::optional<std::int64_t> before) {
    for (std::uint32_t value = 0; value < kKeepValues; ++value)
        if ((value & kept.role) == 0)
            ranges_.push_back({index, condition + KelFormat(kKeepValue, value) + Older(before), true});
    ranges_.push_back({index, condition + kOtherValues + Older(before)});
}

FileRows RemovalRule::Select(Position& position, const IdList& except, unsigned int limit) const {
    for (; position.range < ranges_.size(); position = {position.range + 1}) {
        const Range& range = ranges_[position.range];
        const KelString byAge = range.isByAge ? KelFormat(kByAge, position.createTime) : KelString();
        FileRows files = Read(side_, KelFormat(kSelect, FileStoreEntry::kColumns, range.index,
                                               range.condition, condition_, except.Text(), byAge, limit));
        if (files.empty()) continue;
        position.createTime = files.back().CreateTime;
        return files;
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

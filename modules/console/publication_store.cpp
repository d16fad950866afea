#include "modules/console/publication_store.h"

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kRowsPerStatement = 500;

const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
const KelError kUnwritable{kKelErrorInternal,
                           "The publication cannot be written to the console's database; see its log"};

KelString InsertStatement(const PublicationSummary& publication) {
    return KelFormat(
        "INSERT INTO Publications (PublicationId, FileType, FileLabel, FileName, FileChecksum, FileSize, "
        "CreateTime, Priority) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %d)",
        publication.id, publication.fileType, publication.fileLabel, publication.fileName,
        publication.fileChecksum, publication.fileSize, publication.createTime, publication.priority);
}

void AddTargetStatements(const KelString& id, const KelVector<PublicationTarget>& targets,
                         KelVector<KelString>& statements) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (i % kRowsPerStatement == 0) {
            statements.emplace_back(
                "INSERT OR IGNORE INTO PublicationTargets (PublicationId, GUID, Status, Time, Message) "
                "VALUES ");
        } else {
            statements.back() += ", ";
        }
        const PublicationTarget& target = targets[i];
        statements.back() += KelFormat("('%Q', '%Q', '%Q', %gd, '%Q')", id, target.guid, target.status,
                                       target.time, target.message);
    }
}

/// "WHERE p.PublicationId IN ('a', 'b') ", empty without ids.
KelString IdCondition(const KelVector<KelString>& ids) {
    KelString list;
    for (const KelString& id : ids)
        list += KelFormat("%s'%Q'", list.empty() ? "" : ", ", id);
    return ids.empty() ? KelString() : KelFormat("WHERE p.PublicationId IN (%S) ", list);
}

}  // namespace

/// A failed target without a time never told anything: the file was not offered to it. Beside MAX, SQLite
/// takes the other columns of a group from the row that holds the maximum.
KelResult<KelVector<EarlierTarget>> PublicationStore::ListEarlierTargets(
    const PublicationSummary& publication) {
    const auto rows = database_.Select(
        KelFormat("SELECT t.GUID, p.FileChecksum = '%Q' AS IsSame, t.Status, MAX(t.Time), t.Message, p.rowid "
                  "FROM Publications AS p "
                  "JOIN PublicationTargets AS t ON t.PublicationId = p.PublicationId "
                  "WHERE p.FileName = '%Q' AND p.FileLabel = '%Q' AND p.FileType = '%Q' "
                  "AND (t.Status = 'delivered' OR p.FileChecksum = '%Q') "
                  "AND NOT (t.Status = 'failed' AND t.Time = 0) "
                  "GROUP BY t.GUID, IsSame, t.Status",
                  publication.fileChecksum, publication.fileName, publication.fileLabel, publication.fileType,
                  publication.fileChecksum));
    if (!rows) return kUnreadable;
    KelVector<EarlierTarget> targets(rows->GetRowCount());
    for (std::size_t row = 0; row < targets.size(); ++row) {
        targets[row] = {rows->GetString(row, 0), rows->GetInt64(row, std::size_t{1}) != 0,
                        rows->GetString(row, 2), rows->GetInt64(row, std::size_t{3}),
                        rows->GetString(row, 4), rows->GetInt64(row, std::size_t{5})};
    }
    return targets;
}

KelResult<KelVector<PublicationTarget>> PublicationStore::Add(const PublicationSummary& publication,
                                                              const TargetDecision& decide) {
    const KelLock lock(mutex_);
    const auto earlier = ListEarlierTargets(publication);
    if (!earlier) return earlier.Error();
    KelVector<PublicationTarget> targets = decide(*earlier);
    KelVector<KelString> statements = {InsertStatement(publication)};
    AddTargetStatements(publication.id, targets, statements);
    if (!database_.Write(statements)) return kUnwritable;
    return targets;
}

void PublicationStore::Remove(const KelString& id) {
    const KelLock lock(mutex_);
    database_.Write({KelFormat("DELETE FROM PublicationTargets WHERE PublicationId = '%Q'", id),
                     KelFormat("DELETE FROM Publications WHERE PublicationId = '%Q'", id)});
}

bool PublicationStore::Take(const DeliveryReceipt& receipt, std::int64_t now) {
    const KelLock lock(mutex_);
    return database_.Write(
        {KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, receipt.guid),
         KelFormat("UPDATE PublicationTargets SET Status = '%Q', Time = %gd, Message = '%Q' "
                   "WHERE GUID = '%Q' AND Time <= %gd AND PublicationId IN "
                   "(SELECT PublicationId FROM Publications WHERE FileChecksum = '%Q' AND FileName = '%Q' "
                   "AND FileLabel = '%Q' AND FileType = '%Q')",
                   receipt.status, receipt.time, receipt.message, receipt.guid, receipt.time,
                   receipt.fileChecksum, receipt.fileName, receipt.fileLabel, receipt.fileType)});
}

KelResult<KelVector<PublicationSummary>> PublicationStore::List(const KelVector<KelString>& ids) {
    const auto rows = database_.Select(KelFormat(
        "SELECT p.PublicationId, p.FileType, p.FileLabel, p.FileName, p.FileChecksum, p.FileSize, "
        "p.CreateTime, p.Priority, COUNT(t.GUID), SUM(t.Status = 'delivered'), SUM(t.Status = 'failed') "
        "FROM Publications AS p LEFT JOIN PublicationTargets AS t ON t.PublicationId = p.PublicationId "
        "%SGROUP BY p.PublicationId ORDER BY p.CreateTime DESC, p.rowid DESC",
        IdCondition(ids)));
    if (!rows) return kUnreadable;
    KelVector<PublicationSummary> publications(rows->GetRowCount());
    for (std::size_t row = 0; row < publications.size(); ++row) {
        PublicationSummary& publication = publications[row];
        publication.id = rows->GetString(row, 0);
        publication.fileType = rows->GetString(row, 1);
        publication.fileLabel = rows->GetString(row, 2);
        publication.fileName = rows->GetString(row, 3);
        publication.fileChecksum = rows->GetString(row, 4);
        publication.fileSize = rows->GetInt64(row, std::size_t{5});
        publication.createTime = rows->GetInt64(row, std::size_t{6});
        publication.priority = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{7}));
        publication.targets = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{8}));
        publication.delivered = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{9}));
        publication.failed = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{10}));
    }
    return publications;
}

KelResult<KelVector<PublicationTarget>> PublicationStore::ListTargets(const KelString& id) {
    const auto rows = database_.Select(KelFormat(
        "SELECT GUID, Status, Time, Message FROM PublicationTargets WHERE PublicationId = '%Q' ORDER BY GUID",
        id));
    if (!rows) return kUnreadable;
    KelVector<PublicationTarget> targets(rows->GetRowCount());
    for (std::size_t row = 0; row < targets.size(); ++row) {
        targets[row] = {rows->GetString(row, 0), rows->GetString(row, 1), rows->GetInt64(row, std::size_t{2}),
                        rows->GetString(row, 3)};
    }
    return targets;
}

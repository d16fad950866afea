#include "modules/console/publication_store.h"

#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "modules/console/device_tree.h"

namespace {

constexpr std::size_t kRowsPerStatement = 500;

const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
const KelError kUnwritable{kKelErrorInternal,
                           "The publication cannot be written to the console's database; see its log"};

KelString InsertStatement(const PublicationSummary& publication) {
    return KelFormat(
        "INSERT INTO Publications (PublicationId, FileType, FileLabel, FileName, FileChecksum, FileSize, "
        "CreateTime, Priority) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %d)",
        publication.id, publication.file.type, publication.file.label, publication.file.name,
        publication.file.checksum, publication.fileSize, publication.createTime, publication.priority);
}

/// Adds the statements that insert `rows`, each in its parentheses, after the head "INSERT ... VALUES ": one
/// statement per so many rows, because SQLite limits the length of a statement.
void AddRows(const char* head, const KelVector<KelString>& rows, KelVector<KelString>& statements) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (i % kRowsPerStatement == 0) {
            statements.emplace_back(head);
        } else {
            statements.back() += ", ";
        }
        statements.back() += rows[i];
    }
}

void AddTargets(const KelString& id, const KelVector<PublicationTarget>& targets,
                KelVector<KelString>& statements) {
    KelVector<KelString> rows;
    for (const PublicationTarget& target : targets) {
        rows.push_back(KelFormat("('%Q', '%Q', '%Q', %gd, '%Q')", id, target.guid, target.status, target.time,
                                 target.message));
    }
    AddRows("INSERT OR IGNORE INTO PublicationTargets (PublicationId, GUID, Status, Time, Message) VALUES ",
            rows, statements);
}

/// A device that is a holder already keeps the publication that made it one.
void AddHolders(const PublicationSummary& publication, const KelVector<KelString>& takers,
                KelVector<KelString>& statements) {
    KelVector<KelString> rows;
    for (const KelString& guid : takers) {
        rows.push_back(KelFormat("('%Q', '%Q', '%Q', '%Q', '%Q', '%Q')", publication.file.name,
                                 publication.file.label, publication.file.type, publication.file.checksum,
                                 guid, publication.id));
    }
    AddRows(
        "INSERT OR IGNORE INTO Holders (FileName, FileLabel, FileType, FileChecksum, GUID, "
        "PublicationId) VALUES ",
        rows, statements);
}

/// The SQL condition for the publications of the receipt's file.
KelString KeyCondition(const DeliveryReceipt& receipt) {
    return KelFormat("FileChecksum = '%Q' AND FileName = '%Q' AND FileLabel = '%Q' AND FileType = '%Q'",
                     receipt.file.checksum, receipt.file.name, receipt.file.label, receipt.file.type);
}

/// Receipts may overtake each other on their way up, so an older one changes nothing.
KelString UpdateTargets(const DeliveryReceipt& receipt) {
    return KelFormat(
        "UPDATE PublicationTargets SET Status = '%Q', Time = %gd, Message = '%Q' "
        "WHERE GUID = '%Q' AND Time <= %gd AND PublicationId IN "
        "(SELECT PublicationId FROM Publications WHERE %S)",
        receipt.status, receipt.time, receipt.message, receipt.guid, receipt.time, KeyCondition(receipt));
}

/// Files that were never published, such as those that devices request, need no holders.
KelString UpdateHolder(const DeliveryReceipt& receipt) {
    return KelFormat(
        "INSERT INTO Holders (FileName, FileLabel, FileType, FileChecksum, GUID, Status, Time, Message) "
        "SELECT '%Q', '%Q', '%Q', '%Q', '%Q', '%Q', %gd, '%Q' "
        "WHERE EXISTS (SELECT 1 FROM Publications WHERE %S) "
        "ON CONFLICT (FileName, FileLabel, FileType, FileChecksum, GUID) DO UPDATE SET "
        "Status = excluded.Status, Time = excluded.Time, Message = excluded.Message "
        "WHERE excluded.Time >= Time",
        receipt.file.name, receipt.file.label, receipt.file.type, receipt.file.checksum, receipt.guid,
        receipt.status, receipt.time, receipt.message, KeyCondition(receipt));
}

/// Parents as reported may form a cycle, so the recursion stops after the levels of the deepest tree.
KelString AddHoldersAbove(const DeliveryReceipt& receipt) {
    return KelFormat(
        "WITH RECURSIVE Above (GUID, Level) AS ("
        "SELECT ParentGuid, 1 FROM Devices WHERE GUID = '%Q' "
        "UNION ALL SELECT d.ParentGuid, a.Level + 1 FROM Above AS a "
        "JOIN Devices AS d ON d.GUID = a.GUID WHERE a.Level < %lu) "
        "INSERT OR IGNORE INTO Holders (FileName, FileLabel, FileType, FileChecksum, GUID) "
        "SELECT '%Q', '%Q', '%Q', '%Q', GUID FROM Above WHERE GUID <> '' "
        "AND EXISTS (SELECT 1 FROM Publications WHERE %S)",
        receipt.guid, kMaxTreeLevels, receipt.file.name, receipt.file.label, receipt.file.type,
        receipt.file.checksum, KeyCondition(receipt));
}

/// "WHERE p.PublicationId IN ('a', 'b') ", empty without ids.
KelString IdCondition(const KelVector<KelString>& ids) {
    KelString list;
    for (const KelString& id : ids)
        list += KelFormat("%s'%Q'", list.empty() ? "" : ", ", id);
    return ids.empty() ? KelString() : KelFormat("WHERE p.PublicationId IN (%S) ", list);
}

}  // namespace

/// CROSS JOIN keeps SQLite from scanning the targets of all publications. Next to MAX, the bare columns come
/// from the row that holds the maximum: SQLite documents this.
KelResult<KelVector<EarlierTarget>> PublicationStore::ListEarlierTargets(
    const PublicationSummary& publication) {
    const KelString sameName =
        KelFormat("FileName = '%Q' AND FileLabel = '%Q' AND FileType = '%Q'", publication.file.name,
                  publication.file.label, publication.file.type);
    const auto rows = database_.Select(KelFormat(
        "SELECT GUID, FileChecksum = '%Q' AS IsSame, Status, MAX(Time), Message FROM Holders "
        "WHERE %S AND (Status = 'delivered' OR FileChecksum = '%Q') GROUP BY GUID, IsSame, Status "
        "UNION ALL "
        "SELECT t.GUID, p.FileChecksum = '%Q' AS IsSame, 'pending', 0, '' FROM Publications AS p "
        "CROSS JOIN PublicationTargets AS t ON t.PublicationId = p.PublicationId "
        "WHERE %S AND t.Status = 'pending' GROUP BY t.GUID, IsSame",
        publication.file.checksum, sameName, publication.file.checksum, publication.file.checksum, sameName));
    if (!rows) return kUnreadable;
    KelVector<EarlierTarget> targets(rows->GetRowCount());
    for (std::size_t row = 0; row < targets.size(); ++row) {
        targets[row] = {rows->GetString(row, 0), rows->GetInt64(row, std::size_t{1}) != 0,
                        rows->GetString(row, 2), rows->GetInt64(row, std::size_t{3}),
                        rows->GetString(row, 4)};
    }
    return targets;
}

KelResult<KelVector<PublicationTarget>> PublicationStore::Add(const PublicationSummary& publication,
                                                              const DecideTargetsFunction& decide) {
    const KelLock lock(mutex_);
    const auto earlier = ListEarlierTargets(publication);
    if (!earlier) return earlier.Error();
    TargetDecision decision = decide(*earlier);
    KelVector<KelString> statements = {InsertStatement(publication)};
    AddTargets(publication.id, decision.targets, statements);
    AddHolders(publication, decision.takers, statements);
    if (!database_.Write(statements)) return kUnwritable;
    return std::move(decision.targets);
}

void PublicationStore::Remove(const KelString& id) {
    const KelLock lock(mutex_);
    // Holders first: their condition reads the publication. Those with a status have sent a receipt and stay.
    database_.Write({KelFormat("DELETE FROM Holders WHERE PublicationId = '%Q' AND Status = '' "
                               "AND (FileName, FileLabel, FileType, FileChecksum) IN "
                               "(SELECT FileName, FileLabel, FileType, FileChecksum FROM Publications "
                               "WHERE PublicationId = '%Q')",
                               id, id),
                     KelFormat("DELETE FROM PublicationTargets WHERE PublicationId = '%Q'", id),
                     KelFormat("DELETE FROM Publications WHERE PublicationId = '%Q'", id)});
}

bool PublicationStore::Store(const DeliveryReceipt& receipt, std::int64_t now) {
    const KelLock lock(mutex_);
    return database_.Write(
        {KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, receipt.guid),
         UpdateTargets(receipt), UpdateHolder(receipt), AddHoldersAbove(receipt)});
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
        publication.file.type = rows->GetString(row, 1);
        publication.file.label = rows->GetString(row, 2);
        publication.file.name = rows->GetString(row, 3);
        publication.file.checksum = rows->GetString(row, 4);
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

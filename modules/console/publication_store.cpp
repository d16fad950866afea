#include "modules/console/publication_store.h"

#include <algorithm>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kRowsPerStatement = 500;

const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
const KelError kUnwritable{kKelErrorInternal,
                           "The publication cannot be written to the console's database; see its log"};

KelString InsertStatement(const PublicationSummary& publication) {
    return KelFormat(
        "INSERT INTO Publications (PublicationId, FileType, FileLabel, FileName, FileChecksum, FileSize, "
        "CreateTime, Priority, FileSha256) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %d, '%Q')",
        publication.id, publication.file.type, publication.file.label, publication.file.name,
        publication.file.checksum, publication.fileSize, publication.createTime, publication.priority,
        publication.sha256);
}

/// One statement per so many rows, because SQLite limits the length of a statement.
void AddTargets(const KelString& id, const KelVector<KelString>& guids, KelVector<KelString>& statements) {
    for (std::size_t i = 0; i < guids.size(); ++i) {
        if (i % kRowsPerStatement == 0) {
            statements.emplace_back("INSERT OR IGNORE INTO PublicationTargets (PublicationId, GUID) VALUES ");
        } else {
            statements.back() += ", ";
        }
        statements.back() += KelFormat("('%Q', '%Q')", id, guids[i]);
    }
}

/// For identifiers from outside: one with a NUL, which would end the statement, is that of no publication.
KelString QuotedList(const KelVector<KelString>& texts) {
    KelString list;
    for (const KelString& text : texts)
        if (!HasControlCharacter(text)) list += KelFormat("%s'%Q'", list.empty() ? "" : ", ", text);
    return list;
}

/// The publications that a receipt is for. One that names none belongs to a file that came without an order,
/// so it is for the first publication of the file.
KelString PublicationsOf(const DeliveryReceipt& receipt) {
    if (!receipt.publications.empty()) return QuotedList(receipt.publications);
    return KelFormat(
        "SELECT PublicationId FROM Publications WHERE FileChecksum = '%Q' AND FileName = '%Q' "
        "AND FileLabel = '%Q' AND FileType = '%Q' ORDER BY rowid LIMIT 1",
        receipt.file.checksum, receipt.file.name, receipt.file.label, receipt.file.type);
}

/// Receipts may overtake each other on their way up, so an older one changes nothing.
KelString UpdateTargets(const DeliveryReceipt& receipt) {
    return KelFormat(
        "UPDATE PublicationTargets SET Status = '%Q', Time = %gd, Message = '%Q' "
        "WHERE GUID = '%Q' AND Time <= %gd AND PublicationId IN (%S)",
        receipt.status, receipt.time, receipt.message, receipt.guid, receipt.time, PublicationsOf(receipt));
}

/// "WHERE p.PublicationId IN ('a', 'b') ", empty without ids.
KelString IdCondition(const KelVector<KelString>& ids) {
    return ids.empty() ? KelString() : KelFormat("WHERE p.PublicationId IN (%S) ", QuotedList(ids));
}

}  // namespace

KelStatus PublicationStore::Add(PublicationSummary& publication, const KelVector<KelString>& guids,
                                const KelVector<KelString>& alsoWrite) {
    const KelLock lock(mutex_);
    const FileKey& file = publication.file;
    const auto latest = database_.Select(
        KelFormat("SELECT MAX(CreateTime) FROM Publications WHERE FileName = '%Q' AND FileLabel = '%Q' "
                  "AND FileType = '%Q'",
                  file.name, file.label, file.type));
    if (!latest) return kUnreadable;
    publication.createTime = std::max(publication.createTime, latest->GetInt64(0, std::size_t{0}) + 1);
    KelVector<KelString> statements = {InsertStatement(publication)};
    AddTargets(publication.id, guids, statements);
    statements.insert(statements.end(), alsoWrite.begin(), alsoWrite.end());
    if (!database_.Write(statements)) return kUnwritable;
    return {};
}

KelResult<bool> PublicationStore::IsKnown(const FileKey& file, const KelString& id) {
    const auto rows = database_.Select(
        KelFormat("SELECT 1 FROM Publications WHERE FileChecksum = '%Q' AND FileName = '%Q' AND FileLabel = "
                  "'%Q' AND FileType = '%Q' AND PublicationId <> '%Q' LIMIT 1",
                  file.checksum, file.name, file.label, file.type, id));
    if (!rows) return kUnreadable;
    return rows->GetRowCount() != 0;
}

bool PublicationStore::SetOrdered(const KelString& id, std::int64_t time) {
    return database_.Write(
        {KelFormat("UPDATE Publications SET OrderTime = %gd WHERE PublicationId = '%Q'", time, id)});
}

void PublicationStore::SetSha256(const KelString& id, const KelString& sha256) {
    database_.Write(
        {KelFormat("UPDATE Publications SET FileSha256 = '%Q' WHERE PublicationId = '%Q'", sha256, id)});
}

void PublicationStore::Remove(const KelString& id) {
    database_.Write({KelFormat("DELETE FROM StagedPublications WHERE PublicationId = '%Q'", id),
                     KelFormat("DELETE FROM PublicationTargets WHERE PublicationId = '%Q'", id),
                     KelFormat("DELETE FROM Publications WHERE PublicationId = '%Q'", id)});
}

bool PublicationStore::Store(const DeliveryReceipt& receipt, std::int64_t now) {
    const bool isStored =
        database_.Write({KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, receipt.guid),
                         UpdateTargets(receipt)});
    if (isStored && listener_) listener_();
    return isStored;
}

KelResult<KelVector<PublicationSummary>> PublicationStore::List(const KelVector<KelString>& ids) {
    const auto rows = database_.Select(KelFormat(
        "SELECT p.PublicationId, p.FileType, p.FileLabel, p.FileName, p.FileChecksum, p.FileSize, "
        "p.CreateTime, p.Priority, COUNT(t.GUID), SUM(t.Status = 'delivered'), SUM(t.Status = 'failed'), "
        "p.OrderTime, SUM(t.Status = 'withdrawn'), SUM(t.Status = 'removed'), p.WithdrawTime, "
        "p.FileSha256 "
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
        publication.orderTime = rows->GetInt64(row, std::size_t{11});
        publication.withdrawn = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{12}));
        publication.removed = static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{13}));
        publication.withdrawTime = rows->GetInt64(row, std::size_t{14});
        publication.sha256 = rows->GetString(row, 15);
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

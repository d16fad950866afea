#include "modules/console/publication_store.h"

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kRowsPerStatement = 500;

const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};

KelString InsertStatement(const PublicationSummary& publication) {
    return KelFormat(
        "INSERT INTO Publications (PublicationId, FileType, FileLabel, FileName, FileChecksum, FileSize, "
        "CreateTime, Priority) VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %d)",
        publication.id, publication.fileType, publication.fileLabel, publication.fileName,
        publication.fileChecksum, publication.fileSize, publication.createTime, publication.priority);
}

void AddTargetStatements(const KelString& id, const KelVector<KelString>& guids,
                         KelVector<KelString>& statements) {
    for (std::size_t i = 0; i < guids.size(); ++i) {
        if (i % kRowsPerStatement == 0) {
            statements.emplace_back("INSERT OR IGNORE INTO PublicationTargets (PublicationId, GUID) VALUES ");
        } else {
            statements.back() += ", ";
        }
        statements.back() += KelFormat("('%Q', '%Q')", id, guids[i]);
    }
}

/// Takes over what is known from earlier publications of the same file.
KelString KnownTargetsStatement(const PublicationSummary& publication) {
    return KelFormat(
        "UPDATE PublicationTargets SET Status = 'delivered', Time = Known.Time, Message = 'Had it already' "
        "FROM (SELECT t.GUID AS GUID, MAX(t.Time) AS Time FROM Publications AS p "
        "JOIN PublicationTargets AS t ON t.PublicationId = p.PublicationId "
        "WHERE p.FileChecksum = '%Q' AND p.FileName = '%Q' AND p.FileLabel = '%Q' AND p.FileType = '%Q' "
        "AND t.Status = 'delivered' GROUP BY t.GUID) AS Known "
        "WHERE PublicationTargets.PublicationId = '%Q' AND PublicationTargets.GUID = Known.GUID",
        publication.fileChecksum, publication.fileName, publication.fileLabel, publication.fileType,
        publication.id);
}

}  // namespace

bool PublicationStore::Add(const PublicationSummary& publication, const KelVector<KelString>& guids) {
    KelVector<KelString> statements = {InsertStatement(publication)};
    AddTargetStatements(publication.id, guids, statements);
    statements.push_back(KnownTargetsStatement(publication));
    return database_.Write(statements);
}

void PublicationStore::Remove(const KelString& id) {
    database_.Write({KelFormat("DELETE FROM PublicationTargets WHERE PublicationId = '%Q'", id),
                     KelFormat("DELETE FROM Publications WHERE PublicationId = '%Q'", id)});
}

bool PublicationStore::Take(const DeliveryReceipt& receipt, std::int64_t now) {
    return database_.Write(
        {KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, receipt.guid),
         KelFormat("UPDATE PublicationTargets SET Status = '%Q', Time = %gd, Message = '%Q' "
                   "WHERE GUID = '%Q' AND Time <= %gd AND PublicationId IN "
                   "(SELECT PublicationId FROM Publications WHERE FileChecksum = '%Q' AND FileName = '%Q' "
                   "AND FileLabel = '%Q' AND FileType = '%Q')",
                   receipt.status, receipt.time, receipt.message, receipt.guid, receipt.time,
                   receipt.fileChecksum, receipt.fileName, receipt.fileLabel, receipt.fileType)});
}

KelResult<KelVector<PublicationSummary>> PublicationStore::List(const std::optional<KelString>& id) {
    const KelString condition = id ? KelFormat("WHERE p.PublicationId = '%Q' ", *id) : KelString();
    const auto rows = database_.Select(KelFormat(
        "SELECT p.PublicationId, p.FileType, p.FileLabel, p.FileName, p.FileChecksum, p.FileSize, "
        "p.CreateTime, p.Priority, COUNT(t.GUID), SUM(t.Status = 'delivered'), SUM(t.Status = 'failed') "
        "FROM Publications AS p LEFT JOIN PublicationTargets AS t ON t.PublicationId = p.PublicationId "
        "%SGROUP BY p.PublicationId ORDER BY p.CreateTime DESC, p.rowid DESC",
        condition));
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

#include "filestore/db/upstream_migration.h"

#include <algorithm>

#include "filestore/db/information_table.h"
#include "kel/format.h"
#include "kel/text.h"

using namespace filestore;

namespace {

constexpr const char* kFiles = "Files";
constexpr unsigned int kBatchRows = 10000;
constexpr std::size_t kMaxTextCharacters = 1900;

struct Column {
    KelString name;
    bool isInteger;
};

KelVector<Column> ReadColumns(DBConnection& connection, const KelString& table) {
    KelVector<Column> columns;
    const auto result = connection.Query(KelFormat("PRAGMA table_info (%S)", table));
    if (!result) return columns;
    for (std::size_t row = 0; row < result->GetRowCount(); ++row) {
        const KelString& type = result->GetString(row, "type");
        columns.push_back({result->GetString(row, "name"),
                           IsEqualTo(type, "INTEGER", false) || IsEqualTo(type, "INT", false)});
    }
    return columns;
}

KelString JoinNames(const KelVector<Column>& columns) {
    KelString names;
    for (const Column& column : columns) {
        if (!names.empty()) names += ", ";
        names += column.name;
    }
    return names;
}

/// The first characters of a UTF-8 text; none is split.
std::string_view FirstCharacters(std::string_view text, std::size_t count) {
    std::size_t end = 0;
    while (end < text.size()) {
        const bool startsCharacter = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
        if (startsCharacter && count-- == 0) break;
        ++end;
    }
    return text.substr(0, end);
}

/// The value as it stands in a statement. A text is cut before its apostrophes are doubled, so that no pair
/// is split.
KelString Literal(const Column& column, const KelString& value) {
    if (!column.isInteger) return "'" + DoubleQuotes(FirstCharacters(value, kMaxTextCharacters)) + "'";
    if (value.empty()) return "0";
    return ParseInt64(value) ? value : "'" + DoubleQuotes(value) + "'";
}

bool IsPartOfKey(const KelString& column) {
    return column == "FileType" || column == "FileLabel" || column == "FileName" || column == "FileChecksum";
}

/// Inserts a row, unless an interrupted move has done so. A row of a file that came since then may have its
/// FileId: it gets another.
KelString InsertStatement(const KelString& names, const KelVector<Column>& columns, const DBResult& rows,
                          std::size_t row) {
    KelString values, same;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const Column& column = columns[i];
        KelString value = Literal(column, rows.GetString(row, i));
        const bool isId = column.name == "FileId";
        if (isId || IsPartOfKey(column.name)) same += KelFormat(" AND %S = %S", column.name, value);
        if (isId)
            value = KelFormat("CASE WHEN EXISTS (SELECT 1 FROM %s WHERE FileId = %S) THEN NULL ELSE %S END",
                              kFiles, value, value);
        values += (i > 0 ? ", " : "") + value;
    }
    return KelFormat("INSERT INTO %s (%S) SELECT %S WHERE NOT EXISTS (SELECT 1 FROM %s WHERE 1%S)", kFiles,
                     names, values, kFiles, same);
}

/// All rows or none.
bool CopyBatch(DBConnection& upstream, const KelString& names, const KelVector<Column>& columns,
               const DBResult& rows) {
    DBTransaction transaction(upstream);
    if (!transaction.IsOpen()) return false;
    for (std::size_t row = 0; row < rows.GetRowCount(); ++row)
        if (!upstream.Query(InsertStatement(names, columns, rows, row))) return false;
    if (!transaction.Commit()) return false;
    upstream.Flush();
    return true;
}

/// False when rows could not be read or written: they then stay where they are for the next start.
bool MoveRows(DBConnection& downstream, DBConnection& upstream, KelDebug& log) {
    const KelString table = kFiles;
    const KelVector<Column> columns = ReadColumns(downstream, table);
    const KelString names = JoinNames(columns);
    const KelString query = KelFormat("SELECT %S FROM %S WHERE Upstream = 1", names, table);

    unsigned int offset = 0;
    unsigned int count = kBatchRows;
    while (count == kBatchRows) {
        const auto rows = downstream.Query(KelFormat("%S LIMIT %u OFFSET %u", query, kBatchRows, offset));
        if (!rows) return false;
        count = static_cast<unsigned int>(rows->GetRowCount());
        if (count > 0 && !CopyBatch(upstream, names, columns, *rows)) return false;
        offset += count;
    }
    if (!downstream.Query("DELETE FROM Files WHERE Upstream = 1")) return false;
    if (offset > 0) log.Print("Moved %u upstream files to the upstream database\n", offset);
    downstream.Flush();
    return true;
}

}  // namespace

bool FileStoreMigrateUpstreamRows(DBConnection& downstream, DBConnection& upstream, KelDebug& log) {
    const auto marker = upstream.Query(KelFormat(
        "SELECT FieldValue FROM %s WHERE FieldName='UpstreamTableCreated'", kTableDatabaseInformation));
    if (!marker) return false;
    if (marker->GetRowCount() > 0) {
        if (marker->GetString(0, std::size_t{0}) != "1")
            upstream.Query(KelFormat("UPDATE %s SET FieldValue='1'WHERE FieldName='UpstreamTableCreated'",
                                     kTableDatabaseInformation));
        return true;
    }
    const KelVector<KelString> tables = downstream.GetTablesList();
    const bool hasFiles = std::find(tables.begin(), tables.end(), kFiles) != tables.end();
    if (hasFiles && !MoveRows(downstream, upstream, log)) {
        log.Error(
            "Upstream files could not be moved to the upstream database; tried again at the next start\n");
        return true;
    }
    upstream.Query(KelFormat("INSERT INTO %s (FieldName, FieldValue) VALUES ('UpstreamTableCreated', '1')",
                             kTableDatabaseInformation));
    return true;
}

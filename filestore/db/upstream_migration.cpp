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

KelString InsertStatement(const KelString& prefix, const KelVector<Column>& columns, const DBResult& rows,
                          std::size_t row) {
    KelString statement = prefix;
    for (std::size_t column = 0; column < columns.size(); ++column) {
        if (column > 0) statement += ", ";
        statement += Literal(columns[column], rows.GetString(row, column));
    }
    return statement + ")";
}

bool CopyBatch(DBConnection& upstream, const KelString& prefix, const KelVector<Column>& columns,
               const DBResult& rows) {
    DBTransaction transaction(upstream);
    if (!transaction.IsOpen()) return false;
    for (std::size_t row = 0; row < rows.GetRowCount(); ++row)
        upstream.Query(InsertStatement(prefix, columns, rows, row));
    if (!transaction.Commit()) return false;
    upstream.Flush();
    return true;
}

/// False when rows could not be read or written: they then stay where they are for the next start.
bool MoveRows(DBConnection& downstream, DBConnection& upstream, KelDebug& log) {
    const KelString table = kFiles;
    const KelVector<Column> columns = ReadColumns(downstream, table);
    const KelString names = JoinNames(columns);
    const KelString prefix = KelFormat("INSERT INTO %S (%S) VALUES (", table, names);
    const KelString query = KelFormat("SELECT %S FROM %S WHERE Upstream = 1", names, table);

    unsigned int offset = 0;
    unsigned int count = kBatchRows;
    while (count == kBatchRows) {
        const auto rows = downstream.Query(KelFormat("%S LIMIT %u OFFSET %u", query, kBatchRows, offset));
        if (!rows) return false;
        count = static_cast<unsigned int>(rows->GetRowCount());
        if (count > 0 && !CopyBatch(upstream, prefix, columns, *rows)) return false;
        offset += count;
    }
    if (offset > 0) log.Print("Moved %u upstream files to the upstream database\n", offset);
    downstream.Query("DELETE FROM Files WHERE Upstream = 1");
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

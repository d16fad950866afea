#include "kelcore/db/connection.h"

#include <utility>

#include "kel/text.h"
#include "kelcore/db/connection_handle.h"

namespace {

constexpr std::size_t kLoggedStatementBytes = 500;

/// The failure that the log of failures knows; the connection has one of its own.
constexpr const char* kWriting = "writing";

KelString Shortened(const KelString& statement) {
    if (statement.size() <= kLoggedStatementBytes) return statement;
    std::size_t end = kLoggedStatementBytes;
    while (end > 0 && (static_cast<unsigned char>(statement[end]) & 0xC0) == 0x80)
        --end;  // not within a UTF-8 character
    return statement.substr(0, end) + "...";
}

}  // namespace

DBConnection::DBConnection(std::unique_ptr<Handle> handle, KelDebug& log)
    : handle_(std::move(handle)), log_(log), failures_(log) {}

DBConnection::~DBConnection() = default;

bool DBConnection::Check(const KelStatus& status, const KelString& statement) {
    if (status) return true;
    const KelString line = KelFormat("Database %S: %S in: %S", handle_->claim.RealPath(),
                                     status.Error().message, Shortened(statement));
    if (!SqliteDatabase::IsOfDisk(status.Error().code))
        log_.Error("%S\n", line);
    else if (failures_.Failed(KelDebugLevel::Error, kWriting, line))
        log_.Error(
            "Database %S stores nothing until that is remedied: check space and rights of its folder\n",
            handle_->claim.RealPath());
    return false;
}

void DBConnection::ReportWritten() {
    failures_.Succeeded(kWriting, KelFormat("Database %S can be written again", handle_->claim.RealPath()));
}

KelResult<std::shared_ptr<const DBResult>> DBConnection::Handle::Run(
    const KelString& statement, std::optional<std::span<const DBValue>> values) {
    const KelLock lock(mutex);
    const int pages = database.PagesWritten();
    KelResult<DBResult> result = values ? database.Run(statement, *values) : database.Run(statement);
    hasStored = result && !database.InTransaction() && database.PagesWritten() != pages;
    if (!result) return result.Error();
    auto rows = std::make_shared<const DBResult>(std::move(*result));
    if (keepsLastResult) lastResult = rows;
    return rows;
}

std::shared_ptr<const DBResult> DBConnection::Query(const KelString& statement) {
    return Run(statement, std::nullopt);
}

std::shared_ptr<const DBResult> DBConnection::Query(const KelString& statement,
                                                    std::span<const DBValue> values) {
    return Run(statement, std::optional(values));
}

std::shared_ptr<const DBResult> DBConnection::Run(const KelString& statement,
                                                  std::optional<std::span<const DBValue>> values) {
    const auto result = handle_->Run(statement, values);
    // Logged without the lock: other threads need not wait for it.
    if (!result) {
        Check(result.Error(), statement);
        return nullptr;
    }
    if (handle_->HasStored()) ReportWritten();
    return *result;
}

bool DBConnection::BeginTransaction() {
    const KelLock lock(handle_->mutex);
    return Check(handle_->database.Begin(), "BEGIN");
}

bool DBConnection::CommitTransaction() {
    const KelLock lock(handle_->mutex);
    const int pages = handle_->database.PagesWritten();
    if (!Check(handle_->database.Commit(), "COMMIT")) return false;
    if (handle_->database.PagesWritten() != pages) ReportWritten();
    return true;
}

bool DBConnection::RollbackTransaction() {
    const KelLock lock(handle_->mutex);
    return Check(handle_->database.Rollback(), "ROLLBACK");
}

bool DBConnection::Flush() {
    const KelLock lock(handle_->mutex);
    return Check(handle_->database.Checkpoint(), "checkpoint");
}

void DBConnection::DisableBackupResult() {
    const KelLock lock(handle_->mutex);
    handle_->keepsLastResult = false;
    handle_->lastResult.reset();
}

std::shared_ptr<const DBResult> DBConnection::GetLastResult() const {
    const KelLock lock(handle_->mutex);
    return handle_->lastResult;
}

void DBConnection::SetObserver(DBStatementObserver observer) {
    const KelLock lock(handle_->mutex);
    handle_->database.SetObserver(std::move(observer));
}

KelVector<KelString> DBConnection::GetTablesList() {
    const auto result = Query(
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' "
        "ORDER BY name");
    KelVector<KelString> tables;
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
        tables.push_back(result->GetString(row, "name"));
    return tables;
}

KelString DBConnection::ReadString(const KelString& table, const KelString& column,
                                   const KelString& keyColumn, std::uint64_t key, const KelString& fallback) {
    const auto result =
        Query(KelFormat("SELECT %S FROM %S WHERE %S = %gu LIMIT 1", column, table, keyColumn, key));
    if (!result || result->GetRowCount() == 0) return fallback;
    return result->GetString(0, std::size_t{0});
}

std::int64_t DBConnection::ReadInteger(const KelString& table, const KelString& column,
                                       const KelString& keyColumn, std::uint64_t key, std::int64_t fallback) {
    const auto result =
        Query(KelFormat("SELECT %S FROM %S WHERE %S = %gu LIMIT 1", column, table, keyColumn, key));
    return result && result->GetRowCount() != 0 ? result->GetInt64(0, std::size_t{0}) : fallback;
}

std::int64_t DBConnection::ReadInteger(const KelString& table, const KelString& column,
                                       const KelString& keyColumn, const KelString& key,
                                       std::int64_t fallback) {
    const auto result =
        Query(KelFormat("SELECT %S FROM %S WHERE %S = '%Q' LIMIT 1", column, table, keyColumn, key));
    return result && result->GetRowCount() != 0 ? result->GetInt64(0, std::size_t{0}) : fallback;
}

DBTransaction::DBTransaction(DBConnection& connection)
    : connection_(connection), open_(connection.BeginTransaction()) {}

DBTransaction::~DBTransaction() {
    if (open_) connection_.RollbackTransaction();
}

bool DBTransaction::Commit() {
    if (!open_ || !connection_.CommitTransaction()) return false;
    open_ = false;
    return true;
}

#include "kelcore/db/sqlite_database.h"

#include <sqlite3.h>

#include <limits>
#include <string_view>
#include <utility>

#include "kel/file.h"
#include "kel/format.h"

namespace {

constexpr int kBusyTimeoutMilliseconds = 5000;

constexpr const char* kSettings =
    "PRAGMA synchronous=FULL;"             // what is committed survives a power cut
    "PRAGMA mmap_size=0;"                  // a read error must be an error, not a signal
    "PRAGMA cache_size=-512;"              // KiB; more saves no time, even at a million rows
    "PRAGMA journal_size_limit=67108864";  // bytes that the emptied log may keep

/// Statements with parameters that stay compiled; the store has a handful.
constexpr std::size_t kMostPrepared = 32;

KelError MakeError(int code, KelString message) {
    return {static_cast<unsigned int>(code), std::move(message)};
}

bool IsEndOfStatement(std::string_view rest) {
    return rest.find_first_not_of(" \t\r\n\f;") == std::string_view::npos;
}

KelVector<KelString> ColumnNames(sqlite3_stmt* statement) {
    KelVector<KelString> names;
    const int count = sqlite3_column_count(statement);
    for (int i = 0; i < count; ++i) {
        const char* name = sqlite3_column_name(statement, i);
        names.emplace_back(name != nullptr ? name : "");
    }
    return names;
}

KelVector<KelString> ReadRow(sqlite3_stmt* statement, int columns) {
    KelVector<KelString> row;
    row.reserve(static_cast<std::size_t>(columns));
    for (int i = 0; i < columns; ++i) {
        // The text comes first: reading it may convert the value, which sets the number of bytes.
        const unsigned char* text = sqlite3_column_text(statement, i);
        const int bytes = sqlite3_column_bytes(statement, i);
        row.emplace_back(reinterpret_cast<const char*>(text),
                         text != nullptr ? static_cast<std::size_t>(bytes) : 0);
    }
    return row;
}

int Bind(sqlite3_stmt* statement, int index, const DBValue& value) {
    if (const auto* number = std::get_if<std::int64_t>(&value))
        return sqlite3_bind_int64(statement, index, *number);
    const KelString& text = std::get<KelString>(value);  // the caller's, which outlives the run
    return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

/// Makes a compiled statement ready for the next run: one that is not would keep its transaction open.
class ResetAtEnd {
  public:
    explicit ResetAtEnd(sqlite3_stmt* statement) : statement_(statement) {}
    ~ResetAtEnd() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    ResetAtEnd(const ResetAtEnd&) = delete;
    ResetAtEnd& operator=(const ResetAtEnd&) = delete;

  private:
    sqlite3_stmt* const statement_;
};

}  // namespace

void SqliteDatabase::FinaliseStatement::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

SqliteDatabase::SqliteDatabase(SqliteDatabase&& other) noexcept
    : database_(std::exchange(other.database_, nullptr)),
      prepared_(std::exchange(other.prepared_, {})),
      observer_(std::move(other.observer_)),
      transaction_(std::exchange(other.transaction_, false)) {}

SqliteDatabase& SqliteDatabase::operator=(SqliteDatabase&& other) noexcept {
    if (this == &other) return *this;
    Close(true);
    database_ = std::exchange(other.database_, nullptr);
    prepared_ = std::exchange(other.prepared_, {});
    observer_ = std::move(other.observer_);
    transaction_ = std::exchange(other.transaction_, false);
    return *this;
}

KelStatus SqliteDatabase::Open(const KelString& path) {
    Close(true);
    const int code =
        sqlite3_open_v2(path.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    KelStatus status;
    if (code != SQLITE_OK) {
        status = database_ != nullptr ? LastError() : MakeError(code, sqlite3_errstr(code));
    } else {
        status = Configure();
    }
    return status;
}

KelStatus SqliteDatabase::Configure() {
    sqlite3_busy_timeout(database_, kBusyTimeoutMilliseconds);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    // Otherwise a compiled statement is compiled again when other values are bound to it.
    sqlite3_db_config(database_, SQLITE_DBCONFIG_ENABLE_QPSG, 1, nullptr);
    const KelResult<DBResult> mode = Run("PRAGMA journal_mode=WAL");
    if (!mode) return mode.Error();
    if (mode->GetString(0, std::size_t{0}) != "wal")
        return MakeError(SQLITE_CANTOPEN, "the file system allows no write-ahead log");
    if (KelStatus set = RunScript(kSettings); !set) return set;
    const KelResult<DBResult> schema = Run("SELECT count(*) FROM sqlite_master");
    return schema ? KelStatus() : KelStatus(schema.Error());
}

void SqliteDatabase::Close(bool mergeLog) {
    prepared_.clear();
    if (database_ == nullptr) return;
    if (!mergeLog) sqlite3_db_config(database_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    sqlite3_close(database_);
    database_ = nullptr;
    transaction_ = false;
}

KelError SqliteDatabase::LastError() const {
    return MakeError(sqlite3_errcode(database_) & 0xFF, sqlite3_errmsg(database_));
}

/// Some failures, such as a full disk, roll a transaction back on their own. The statements that its owner
/// runs after that must not take effect one by one.
KelStatus SqliteDatabase::CheckWritable(bool readOnlyStatement) const {
    if (readOnlyStatement || !transaction_ || sqlite3_get_autocommit(database_) == 0) return {};
    return MakeError(SQLITE_ABORT, "the transaction was rolled back by an earlier failure");
}

void SqliteDatabase::Observe(sqlite3_stmt* statement) const {
    if (!observer_) return;
    const std::unique_ptr<char, void (*)(void*)> expanded(sqlite3_expanded_sql(statement), sqlite3_free);
    observer_(expanded ? expanded.get() : sqlite3_sql(statement));
}

/// Compiles the first statement of `text` and cuts it off there; the result is null when there was none.
int SqliteDatabase::PrepareNext(std::string_view& text, Statement& statement, unsigned int flags) const {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return SQLITE_TOOBIG;
    sqlite3_stmt* prepared = nullptr;
    const char* tail = text.data();
    const int code =
        sqlite3_prepare_v3(database_, text.data(), static_cast<int>(text.size()), flags, &prepared, &tail);
    statement.reset(prepared);
    text.remove_prefix(static_cast<std::size_t>(tail - text.data()));
    return code;
}

KelResult<SqliteDatabase::Statement> SqliteDatabase::PrepareOnly(const KelString& text,
                                                                 unsigned int flags) const {
    std::string_view rest = text;
    Statement statement;
    const int prepared = PrepareNext(rest, statement, flags);
    if (prepared == SQLITE_TOOBIG) return MakeError(prepared, sqlite3_errstr(prepared));
    if (prepared != SQLITE_OK) return LastError();
    if (!statement) return MakeError(SQLITE_MISUSE, "there is no statement");
    if (!IsEndOfStatement(rest)) return MakeError(SQLITE_MISUSE, "text follows the statement");
    return statement;
}

KelResult<sqlite3_stmt*> SqliteDatabase::Prepared(const KelString& text) {
    if (const auto known = prepared_.find(text); known != prepared_.end()) return known->second.get();
    KelResult<Statement> statement = PrepareOnly(text, SQLITE_PREPARE_PERSISTENT);
    if (!statement) return statement.Error();
    if (prepared_.size() >= kMostPrepared) prepared_.clear();
    return (prepared_[text] = std::move(*statement)).get();
}

KelResult<DBResult> SqliteDatabase::Execute(sqlite3_stmt* statement) {
    if (const KelStatus writable = CheckWritable(sqlite3_stmt_readonly(statement) != 0); !writable)
        return writable.Error();
    Observe(statement);
    KelVector<KelVector<KelString>> rows;
    const int columns = sqlite3_column_count(statement);
    int step = sqlite3_step(statement);
    for (; step == SQLITE_ROW; step = sqlite3_step(statement))
        rows.push_back(ReadRow(statement, columns));
    if (step != SQLITE_DONE) return LastError();
    return DBResult(ColumnNames(statement), std::move(rows));
}

KelResult<DBResult> SqliteDatabase::Run(const KelString& text) {
    const KelResult<Statement> statement = PrepareOnly(text);
    if (!statement) return statement.Error();
    return Execute(statement->get());
}

KelResult<DBResult> SqliteDatabase::Run(const KelString& text, std::span<const DBValue> values) {
    const KelResult<sqlite3_stmt*> statement = Prepared(text);
    if (!statement) return statement.Error();
    const ResetAtEnd reset(*statement);
    if (static_cast<std::size_t>(sqlite3_bind_parameter_count(*statement)) != values.size())
        return MakeError(SQLITE_MISUSE, "the statement has another number of parameters");
    for (int index = 0; const DBValue& value : values)
        if (Bind(*statement, ++index, value) != SQLITE_OK) return LastError();
    return Execute(*statement);
}

KelStatus SqliteDatabase::RunScript(const KelString& statements) {
    std::string_view rest = statements;
    while (!IsEndOfStatement(rest)) {
        Statement statement;
        const int prepared = PrepareNext(rest, statement);
        if (prepared == SQLITE_TOOBIG) return MakeError(prepared, sqlite3_errstr(prepared));
        if (prepared != SQLITE_OK) return LastError();
        if (!statement) break;  // comments only
        if (KelStatus writable = CheckWritable(sqlite3_stmt_readonly(statement.get()) != 0); !writable)
            return writable;
        Observe(statement.get());
        int step = sqlite3_step(statement.get());
        while (step == SQLITE_ROW)
            step = sqlite3_step(statement.get());
        if (step != SQLITE_DONE) return LastError();
    }
    return {};
}

KelStatus SqliteDatabase::Begin() {
    // Taking the write lock at once: a later upgrade from reading to writing could fail in the middle.
    KelStatus begun = RunScript("BEGIN IMMEDIATE");
    if (begun) transaction_ = true;
    return begun;
}

KelStatus SqliteDatabase::Commit() {
    if (KelStatus writable = CheckWritable(false); !writable) return writable;
    KelStatus committed = RunScript("COMMIT");
    if (committed) transaction_ = false;
    return committed;
}

KelStatus SqliteDatabase::Rollback() {
    const bool rolledBackAlready = transaction_ && sqlite3_get_autocommit(database_) != 0;
    transaction_ = false;
    return rolledBackAlready ? KelStatus() : RunScript("ROLLBACK");
}

KelStatus SqliteDatabase::Checkpoint() {
    const int code =
        sqlite3_wal_checkpoint_v2(database_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    return code == SQLITE_OK ? KelStatus() : KelStatus(LastError());
}

KelStatus SqliteDatabase::CopyTo(const KelString& path) {
    // SQLite does not sync what VACUUM INTO writes.
    const KelResult<DBResult> copied = Run(KelFormat("VACUUM INTO '%Q'", path));
    if (!copied) return copied.Error();
    return FileSync(path) ? KelStatus() : KelStatus(MakeError(SQLITE_IOERR, path + " cannot be synced"));
}

KelStatus SqliteDatabase::QuickCheck() {
    const KelResult<DBResult> check = Run("PRAGMA quick_check(1)");
    if (!check) return check.Error();
    const KelString& verdict = check->GetString(0, std::size_t{0});
    return verdict == "ok" ? KelStatus() : KelStatus(MakeError(SQLITE_CORRUPT, verdict));
}

int SqliteDatabase::PagesWritten() const {
    int pages = 0;
    int highest = 0;
    sqlite3_db_status(database_, SQLITE_DBSTATUS_CACHE_WRITE, &pages, &highest, 0);
    return pages;
}

bool SqliteDatabase::IsOfDisk(unsigned int code) {
    return code == SQLITE_FULL || code == SQLITE_IOERR || code == SQLITE_READONLY || code == SQLITE_CANTOPEN;
}

bool SqliteDatabase::IsDamage(unsigned int code) {
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

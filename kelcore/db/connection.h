#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/db/result.h"
#include "kelcore/failure_log.h"

class IniFile;

/// Reports the progress of an upgrade: version reached, version aimed at.
using DBUpgradeProgress = std::function<void(unsigned int, unsigned int)>;

/// Receives the text of a statement.
using DBStatementObserver = std::function<void(const KelString&)>;

/// The one open connection to a database file (SQLite, WAL, synchronous=FULL, defensive, trusted_schema=OFF,
/// mmap_size=0).
///
/// Statements of several threads are run one after the other. A transaction belongs to the connection, not to
/// a thread: callers serialise writers with their own mutex. Made by DBConnectionPool.
class DBConnection {
  public:
    ~DBConnection();
    DBConnection(const DBConnection&) = delete;
    DBConnection& operator=(const DBConnection&) = delete;

    /// Runs exactly one statement and gives its rows (none for a write). Null when it failed; the failure is
    /// logged with the statement and SQLite's message. In a transaction that an earlier failure (a full disk)
    /// has rolled back, every write fails until it is ended.
    std::shared_ptr<const DBResult> Query(const KelString& statement);

    /// The same with a value for each parameter ("?") of the statement, which is compiled only once: for
    /// statements that are run for each of many files.
    std::shared_ptr<const DBResult> Query(const KelString& statement, std::span<const DBValue> values);

    // Each true on success; failures are logged.
    bool BeginTransaction();
    bool CommitTransaction();
    bool RollbackTransaction();

    /// Moves what the write-ahead log holds into the database file.
    bool Flush();

    /// By default the connection keeps the last result for diagnosis (GetLastResult); this turns it off for
    /// good.
    void DisableBackupResult();
    std::shared_ptr<const DBResult> GetLastResult() const;

    /// Has `observer` called with the text of every statement before it runs, those of scripts and
    /// transactions included; an empty one ends that. It runs on the thread of the statement with the
    /// connection locked, so it must not use the connection.
    void SetObserver(DBStatementObserver observer);

    KelVector<KelString> GetTablesList();

    /// The first row's `column` of `table` where `keyColumn` = `key`; `fallback` when there is none.
    KelString ReadString(const KelString& table, const KelString& column, const KelString& keyColumn,
                         std::uint64_t key, const KelString& fallback = {});
    std::int64_t ReadInteger(const KelString& table, const KelString& column, const KelString& keyColumn,
                             std::uint64_t key, std::int64_t fallback = 0);
    /// The same with a text key (quotes doubled here).
    std::int64_t ReadInteger(const KelString& table, const KelString& column, const KelString& keyColumn,
                             const KelString& key, std::int64_t fallback = 0);

    /// Runs the statements `Sql1`, `Sql2`, … (without gaps) of `section` in the ini file, each of which may
    /// hold several statements separated by ";". With `once`, each entry that ran is remembered in the table
    /// `DatabaseInformation` and not run again; it runs in a transaction with its mark, so it must hold no
    /// transaction statements. Failures are logged and do not stop the entries after them; true when all
    /// succeeded.
    bool RunIniScripts(const KelString& iniFile, const KelString& section, bool once);

    /// Brings the schema up to date: entry n of `section` takes it from version n-1 to n. The version reached
    /// is kept in `table` (created when missing, columns `keyColumn` and `valueColumn`, texts) under the key
    /// "SchemaVersion". All entries run in one transaction with the new version, so that a failure (logged)
    /// leaves the database as it was; true when it has the last version. Before a database that has a version
    /// already is changed, it is copied to "<file>.schema-<version>", where it stays until
    /// RemoveUpgradeCopies.
    bool RunUpgrade(const KelString& table, const KelString& keyColumn, const KelString& valueColumn,
                    const KelString& iniFile, const KelString& section, const DBUpgradeProgress& progress);

    /// A database of this process and a copy of it.
    struct Copy {
        KelString path;
        KelString copy;
    };
    /// Copies every database that is open in this process to a file of its name in a folder of its own
    /// beneath `folder`, which exists: all of them as they were at one moment, at which none had a
    /// transaction. That is what a power cut at that moment would have left, so it is a state from which
    /// everything goes on. The statements of all threads wait meanwhile: some seconds for a million rows. Any
    /// thread; not in a transaction.
    static KelResult<KelVector<Copy>> CopyOpenDatabases(const KelString& folder);

    /// A database of this process, and what is wrong with its structure: empty when it is sound.
    struct Health {
        KelString path;
        KelString problem;
    };
    /// Checks every database that is open in this process, one after the other; its statements wait
    /// meanwhile: a second for a million rows. Any thread.
    static KelVector<Health> CheckOpenDatabases();

    /// Removes the copies that upgrades have made of the databases that are open in this process: the program
    /// works with the new ones.
    static void RemoveUpgradeCopies();

  private:
    friend class DBConnectionPool;
    struct Handle;
    DBConnection(std::unique_ptr<Handle> handle, KelDebug& log);

    std::shared_ptr<const DBResult> Run(const KelString& statement,
                                        std::optional<std::span<const DBValue>> values);
    /// Logs a failure, one of the disk only when it begins; true when there is none.
    bool Check(const KelStatus& status, const KelString& statement);
    /// Something was written to the disk: logs it when writing used to fail.
    void ReportWritten();
    bool OpenScripts(IniFile& ini, const KelString& iniFile) const;
    bool RunScript(const KelString& script);
    bool RunScriptOnce(const KelString& markerKey, const KelString& script);
    bool CreateKeyTable(const KelString& table, const KelString& keyColumn, const KelString& valueColumn);
    bool CopyBeforeUpgrade(unsigned int version);
    bool UpgradeTo(unsigned int target, unsigned int current, const KelString& table,
                   const KelString& keyColumn, const KelString& valueColumn, const IniFile& ini,
                   const KelString& section, const DBUpgradeProgress& progress);
    void ReportNewerSchema(unsigned int version) const;
    std::optional<unsigned int> ReadSchemaVersion(const KelString& table, const KelString& keyColumn,
                                                  const KelString& valueColumn);

    std::unique_ptr<Handle> handle_;
    KelDebug& log_;
    KelFailureLog failures_;
};

/// Holds a transaction open for a scope: rolled back at the end unless Commit was called. The caller holds
/// the mutex that serialises writers of the connection for the whole scope.
class DBTransaction {
  public:
    explicit DBTransaction(DBConnection& connection);
    ~DBTransaction();
    DBTransaction(const DBTransaction&) = delete;
    DBTransaction& operator=(const DBTransaction&) = delete;
    /// False when the transaction could not be begun: what runs now would take effect at once.
    bool IsOpen() const { return open_; }
    bool Commit();

  private:
    DBConnection& connection_;
    bool open_;
};

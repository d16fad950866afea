#include "filestore/db/database.h"
#include "filestore/db/information_table.h"
#include "filestore/db/upstream_migration.h"
#include "filestore/state/file_store.h"
#include "kelcore/db/connection_pool.h"

namespace {

std::unique_ptr<DBConnection> OpenDatabase(DBConnectionPool& pool, DBSequenceManager& sequence,
                                           const KelString& file) {
    pool.SetDebug(FileStore::debugFileStore);
    pool.SetSerialConnections(false);
    pool.SetDatabase("SQLITE32", "", FileStore::strModuleDataPath + "/" + file, "", "", 0);
    std::unique_ptr<DBConnection> connection = pool.CreateConnection();
    sequence.SetConnection(connection.get());
    return connection;
}

/// A failed script is in the log already; the tables that are there can still be served.
void Upgrade(DBConnection& connection, const char* section) {
    connection.RunUpgrade(filestore::kTableDatabaseInformation, "FieldName", "FieldValue",
                          FileStore::strModuleIniFile, section, nullptr);
}

bool OpenUpstream() {
    FileStore::pDbConnectionUpstream = OpenDatabase(FileStore::dbConnectionPoolUpstream,
                                                    FileStore::dbSequenceManagerUpstream, "Upstream.sqlite");
    if (!FileStore::pDbConnectionUpstream) return false;
    Upgrade(*FileStore::pDbConnectionUpstream, "SqlUpgrade3");
    return true;
}

bool OpenDownstream() {
    FileStore::pDbConnectionDownstream = OpenDatabase(
        FileStore::dbConnectionPoolDownstream, FileStore::dbSequenceManagerDownstream, "FileStore.sqlite");
    if (!FileStore::pDbConnectionDownstream) return false;
    FileStore::pDbConnectionDownstream->RunIniScripts(FileStore::strModuleIniFile, "SqlRun", false);
    FileStore::pDbConnectionDownstream->RunIniScripts(FileStore::strModuleIniFile, "SqlRunOnce", true);
    Upgrade(*FileStore::pDbConnectionDownstream, "SqlUpgrade");
    return true;
}

bool OpenCallback() {
    FileStore::pDbConnectionCallback = OpenDatabase(FileStore::dbConnectionPoolCallback,
                                                    FileStore::dbSequenceManagerCallback, "Callback.sqlite");
    if (!FileStore::pDbConnectionCallback) return false;
    // A queue entry that a power cut removes is made again from the upstream store at the next start.
    FileStore::pDbConnectionCallback->Query("PRAGMA synchronous=NORMAL");
    Upgrade(*FileStore::pDbConnectionCallback, "SqlUpgrade2");
    return true;
}

}  // namespace

FileStoreDatabase FileStoreGetDatabase(Side side) {
    if (side == Side::Upstream)
        return {*FileStore::pDbConnectionUpstream, FileStore::mutexUpstream,
                FileStore::dbSequenceManagerUpstream};
    return {*FileStore::pDbConnectionDownstream, FileStore::mutexDownstream,
            FileStore::dbSequenceManagerDownstream};
}

FileStoreDatabase FileStoreGetCallbackDatabase() {
    return {*FileStore::pDbConnectionCallback, FileStore::mutexCallback,
            FileStore::dbSequenceManagerCallback};
}

bool FileStore::SetupDatabases() {
    if (!OpenUpstream() || !OpenDownstream() || !OpenCallback() ||
        !FileStoreMigrateUpstreamRows(*pDbConnectionDownstream, *pDbConnectionUpstream, debugFileStore))
        return false;
    for (DBConnection* connection :
         {pDbConnectionUpstream.get(), pDbConnectionDownstream.get(), pDbConnectionCallback.get()}) {
        if (fPerformVacuum) connection->Query("vacuum");
        connection->Flush();
        connection->DisableBackupResult();
    }
    return true;
}

void FileStore::CleanupDatabases() {
    dbSequenceManagerUpstream.SetConnection(nullptr);
    dbSequenceManagerDownstream.SetConnection(nullptr);
    dbSequenceManagerCallback.SetConnection(nullptr);
    pDbConnectionUpstream.reset();
    pDbConnectionDownstream.reset();
    pDbConnectionCallback.reset();
}

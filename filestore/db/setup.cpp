#include "filestore/db/schema.h"
#include "filestore/db/upstream_migration.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"

using namespace filestore;

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
    connection.RunUpgrade(kTableDatabaseInformation, "FieldName", "FieldValue", FileStore::strModuleIniFile,
                          section, nullptr);
}

bool OpenAll() {
    FileStore::pDbConnectionUpstream = OpenDatabase(FileStore::dbConnectionPoolUpstream,
                                                    FileStore::dbSequenceManagerUpstream, "Upstream.sqlite");
    if (!FileStore::pDbConnectionUpstream) return false;
    Upgrade(*FileStore::pDbConnectionUpstream, "SqlUpgrade3");

    FileStore::pDbConnectionDownstream = OpenDatabase(
        FileStore::dbConnectionPoolDownstream, FileStore::dbSequenceManagerDownstream, "FileStore.sqlite");
    if (!FileStore::pDbConnectionDownstream) return false;
    FileStore::pDbConnectionDownstream->RunIniScripts(FileStore::strModuleIniFile, "SqlRun", false);
    FileStore::pDbConnectionDownstream->RunIniScripts(FileStore::strModuleIniFile, "SqlRunOnce", true);
    Upgrade(*FileStore::pDbConnectionDownstream, "SqlUpgrade");

    FileStore::pDbConnectionCallback = OpenDatabase(FileStore::dbConnectionPoolCallback,
                                                    FileStore::dbSequenceManagerCallback, "Callback.sqlite");
    if (!FileStore::pDbConnectionCallback) return false;
    // A queue entry that a power cut takes back is made again from the upstream store at the next start.
    FileStore::pDbConnectionCallback->Query("PRAGMA synchronous=NORMAL");
    Upgrade(*FileStore::pDbConnectionCallback, "SqlUpgrade2");
    return true;
}

}  // namespace

bool FileStore::SetupDatabases() {
    if (!OpenAll() || !FileStoreMigrateUpstreamRows(*pDbConnectionDownstream, *pDbConnectionUpstream))
        return false;

    const auto connections = {pDbConnectionUpstream.get(), pDbConnectionDownstream.get(),
                              pDbConnectionCallback.get()};
    if (fPerformVacuum)
        for (DBConnection* connection : connections)
            connection->Query("vacuum");
    for (DBConnection* connection : connections) {
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

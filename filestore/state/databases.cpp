#include <algorithm>

#include "filestore/db/database.h"
#include "filestore/db/information_table.h"
#include "filestore/db/upstream_migration.h"
#include "filestore/state/file_store.h"
#include "kelcore/agent.h"
#include "kelcore/db/connection_pool.h"

namespace {

/// The file that came with the module describes the databases, whatever version has written the settings.
KelString SchemaPath() {
    return KelAgentGetSchemaDir() + "FileStore.ini";
}

std::unique_ptr<DBConnection> OpenDatabase(DBConnectionPool& pool, DBSequenceManager& sequence,
                                           const KelString& file) {
    pool.SetDebug(FileStore::debugFileStore);
    pool.SetSerialConnections(false);
    pool.SetDatabase("SQLITE32", "", FileStore::strModuleDataPath + "/" + file, "", "", 0);
    std::unique_ptr<DBConnection> connection = pool.CreateConnection();
    sequence.SetConnection(connection.get());
    return connection;
}

/// False, logged, when the schema is not the one that the ini file describes, or lacks `table`.
bool Upgrade(DBConnection& connection, const char* section, const KelString& table) {
    if (!connection.RunUpgrade(filestore::kTableDatabaseInformation, "FieldName", "FieldValue", SchemaPath(),
                               section, nullptr))
        return false;
    const KelVector<KelString> tables = connection.GetTablesList();
    if (std::find(tables.begin(), tables.end(), table) != tables.end()) return true;
    FileStore::debugFileStore.Error(
        "Section %s of %S, which creates the table %S, is missing; install the program again\n", section,
        SchemaPath(), table);
    return false;
}

bool OpenUpstream() {
    FileStore::pDbConnectionUpstream = OpenDatabase(FileStore::dbConnectionPoolUpstream,
                                                    FileStore::dbSequenceManagerUpstream, "Upstream.sqlite");
    if (!FileStore::pDbConnectionUpstream) return false;
    return Upgrade(*FileStore::pDbConnectionUpstream, "SqlUpgrade3", "Files");
}

bool OpenDownstream() {
    FileStore::pDbConnectionDownstream = OpenDatabase(
        FileStore::dbConnectionPoolDownstream, FileStore::dbSequenceManagerDownstream, "FileStore.sqlite");
    if (!FileStore::pDbConnectionDownstream) return false;
    FileStore::pDbConnectionDownstream->RunIniScripts(SchemaPath(), "SqlRun", false);
    FileStore::pDbConnectionDownstream->RunIniScripts(SchemaPath(), "SqlRunOnce", true);
    return Upgrade(*FileStore::pDbConnectionDownstream, "SqlUpgrade", "Files");
}

bool OpenCallback() {
    FileStore::pDbConnectionCallback = OpenDatabase(FileStore::dbConnectionPoolCallback,
                                                    FileStore::dbSequenceManagerCallback, "Callback.sqlite");
    if (!FileStore::pDbConnectionCallback) return false;
    // A queue entry that a power cut removes is made again from the upstream store at the next start.
    FileStore::pDbConnectionCallback->Query("PRAGMA synchronous=NORMAL");
    return Upgrade(*FileStore::pDbConnectionCallback, "SqlUpgrade2", "CallbackThread");
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

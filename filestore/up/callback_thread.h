#pragma once

#include <chrono>

#include "filestore/db/file_store_entry.h"
#include "filestore/state/worker_loop.h"
#include "kel/types.h"

/// Processes the files that children have put by HTTP: they are handed to consumers here or sent on to the
/// parent; archives are unpacked. The queue of their URLs is kept in the callback database, so that it
/// outlives a stop of the module.
class FileStoreCallbackThread : public FileThreadBase {
  public:
    FileStoreCallbackThread();

    /// Reads the entries SqlExecute1, SqlExecute2, … of the ini file. Before the thread is started.
    void LoadSqlList();

    // ---- the steps of the thread, public for tests, which call them on one thread

    unsigned int GetCallbackCount();

    /// Processes the file that has arrived under `url`. A file that no row names is removed, one whose row is
    /// not waiting for it is left alone. False when a database, the disk or another device failed: the URL
    /// stays in the queue and the next step tries again.
    bool ReceiveFile(const KelString& url);

  protected:
    bool DoWork() override;

  private:
    void RepairFromTimeToTime();
    bool ReceivePackage(const FileStoreEntry& entry, const KelString& targetStatus);
    bool Reject(const FileStoreEntry& package);

    KelVector<KelString> sqlList_;  ///< run on the upstream database at the end of every step
    std::chrono::steady_clock::time_point lastRepair_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point rejectAgain_;  ///< not before
};

#pragma once

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

    /// Puts a URL into the queue unless it is there already. From any thread.
    static void Enqueue(const KelString& url);

    // ---- the steps of the thread, public for tests, which call them on one thread

    /// Removes the oldest URL from the queue and returns it; empty when there is none or it cannot be
    /// removed.
    KelString GetFileUrl();

    unsigned int GetCallbackCount();

    /// Processes the file that has arrived under `url`. A file that no row names is removed, one whose row is
    /// not waiting for it is left alone. When the row cannot be read nothing happens.
    void ReceiveFile(const KelString& url);

  protected:
    bool DoWork() override;

  private:
    KelVector<KelString> sqlList_;  ///< run on the upstream database at the end of every step
};

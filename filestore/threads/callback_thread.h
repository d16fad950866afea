#pragma once

#include "filestore/db/file_store_entry.h"
#include "filestore/threads/file_thread_base.h"
#include "kel/container.h"

/// Takes in the files that children have put by HTTP: to be handled here or passed on further up; archives
/// are unpacked. The queue is kept in the callback database.
class FileStoreCallbackThread : public FileThreadBase {
  public:
    FileStoreCallbackThread();

    /// Reads the entries SqlExecute1, SqlExecute2, … of the ini file. Before the thread is started.
    void LoadSqlList();

    /// Puts a URL into the queue unless it is there already. From any thread.
    static void Enqueue(const KelString& url);

    /// The URL of the oldest queued file, taken out of the queue; empty when there is none or when it cannot
    /// be taken out.
    KelString GetFileUrl();

    unsigned int GetCallbackCount();

    /// Processes one received file.
    void ReceiveFile(const KelString& url);

  protected:
    bool DoWork() override;

  private:
    void ExecuteSqlList();
    void ReceivePackage(const FileStoreEntry& entry);

    KelVector<KelString> sqlList_;  ///< run on the upstream database after every drained queue
};

#pragma once

#include "filestore/threads/file_thread_base.h"

/// Takes in the files that children have put by HTTP.
class FileStoreCallbackThread : public FileThreadBase {
  public:
    FileStoreCallbackThread();

    /// Reads the entries SqlExecute1, SqlExecute2, … of the ini file. Before the thread is started.
    void LoadSqlList();

  protected:
    bool DoWork() override;

  private:
    KelVector<KelString> sqlList_;  ///< run on the upstream database after every drained queue
};

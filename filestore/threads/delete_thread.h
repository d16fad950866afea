#pragma once

#include "filestore/threads/file_thread_base.h"

/// Removes delivered and out-of-date files, targets and packages.
class FileStoreDeleteThread : public FileThreadBase {
  public:
    FileStoreDeleteThread();

  protected:
    bool DoWork() override;
};

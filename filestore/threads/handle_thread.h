#pragma once

#include "filestore/threads/file_thread_base.h"

/// Hands arrived files to the modules of this device.
class FileStoreHandleThread : public FileThreadBase {
  public:
    FileStoreHandleThread();

  protected:
    bool DoWork() override;
};

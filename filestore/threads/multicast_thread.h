#pragma once

#include "filestore/threads/file_thread_base.h"

/// Sends planned files by UDP multicast.
class FileStoreMulticastThread : public FileThreadBase {
  public:
    FileStoreMulticastThread();

  protected:
    bool DoWork() override;
};

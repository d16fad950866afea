#pragma once

#include "filestore/state/worker_loop.h"

/// Removes delivered and out-of-date files, targets and packages.
class FileStoreDeleteThread : public FileThreadBase {
  public:
    FileStoreDeleteThread();

  protected:
    bool DoWork() override;
};

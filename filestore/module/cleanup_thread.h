#pragma once

#include "filestore/state/worker_loop.h"

/// The worker that would remove delivered and outdated files, targets and packages. It has no work yet: a
/// store keeps what it has received.
class FileStoreDeleteThread : public FileThreadBase {
  public:
    FileStoreDeleteThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

  protected:
    bool DoWork() override { return false; }
};

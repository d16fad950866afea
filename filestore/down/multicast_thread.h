#pragma once

#include "filestore/state/worker_loop.h"

/// The worker that would send planned files by UDP multicast. It has no work yet: files leave this device by
/// unicast only. Reception (multicast_reception.h) does not depend on it.
class FileStoreMulticastThread : public FileThreadBase {
  public:
    FileStoreMulticastThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

  protected:
    bool DoWork() override { return false; }
};

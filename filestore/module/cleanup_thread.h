#pragma once

#include <cstdint>

#include "filestore/module/orphans.h"
#include "filestore/state/worker_loop.h"

/// The worker that keeps the store in order. It brings back what a lost upstream database held
/// (up/lost_store.h). Delivered and outdated files, targets and packages, which it would remove, stay: a
/// store keeps what it has received. Once a day it looks for orphans (module/orphans.h).
class FileStoreDeleteThread : public FileThreadBase {
  public:
    FileStoreDeleteThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

  protected:
    bool DoWork() override;

  private:
    OrphanSearch orphans_;
    std::int64_t parentAsked_ = 0;  ///< when the parent answered last, seconds since the epoch
};

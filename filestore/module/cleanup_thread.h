#pragma once

#include <cstdint>

#include "filestore/state/external_content.h"
#include "filestore/state/worker_loop.h"

/// The worker that keeps the store in order. It brings back what a lost upstream database held
/// (up/lost_store.h), and removes files that have done their job, what has outlived its time to live, and
/// packages that are not asked for, in this order: first on the way down, then on the way up
/// (module/cleanup_passes.h, packages/unused_packages.h). What is in use stays (state/removal.h). Files
/// outside the store are forgotten when they are gone (state/external_content.h).
class FileStoreDeleteThread : public FileThreadBase {
  public:
    FileStoreDeleteThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

  protected:
    bool DoWork() override;

  private:
    void AskParent();
    void RunPasses();

    filestore::ExternalFilesCheck externalFiles_;
    std::int64_t parentAsked_ = 0;  ///< when the parent answered last, seconds since the epoch
};

#pragma once

#include "filestore/threads/file_thread_base.h"

/// Downloads announced files from the parent (or the device that offered them), verifies and acknowledges
/// them.
class FileStorePullThread : public FileThreadBase {
  public:
    FileStorePullThread();

    /// Takes at most one file in hand: 1 when it did, whatever the outcome, else 0. Also for tests, on any
    /// one thread.
    int DownloadFile();

    /// Acknowledges at most one downloaded file to its sender: 1 when it did, else 0.
    int AcknowledgeFile();

  protected:
    bool DoWork() override;
};

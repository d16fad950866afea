#pragma once

#include "filestore/threads/file_thread_base.h"

/// Requests missing files from the parent and sends upstream files to it.
class FileStorePushThread : public FileThreadBase {
  public:
    FileStorePushThread();

    /// Draws the retry interval anew from the push time-out, so that the retries of many devices spread over
    /// time.
    void InitCurrentTimeout();

  protected:
    bool DoWork() override;

  private:
    unsigned long currentTimeout_ = 300;  ///< seconds
};

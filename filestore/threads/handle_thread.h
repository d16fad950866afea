#pragma once

#include "filestore/db/file_store_entry.h"
#include "filestore/threads/file_thread_base.h"
#include "kel/container.h"

/// Puts files in touch with the modules of this device: asks them for missing files before the parent is
/// asked, and hands arrived files to them. Callbacks run on this thread. The two jobs are public for tests,
/// on any one thread.
class FileStoreHandleThread : public FileThreadBase {
  public:
    FileStoreHandleThread();

    /// Serves one missing file of the chosen database; true when the work step should look for more.
    bool LocalRequestFile(bool upstream);

    /// Hands over a batch of files of the chosen database; true when there were any.
    bool HandleFile(bool upstream);

  protected:
    bool DoWork() override;

  private:
    struct Answers;

    bool DecideMissing(std::uint64_t fileId, bool upstream, bool isKnownToConsumer);
    void HandOver(const FileStoreEntry& entry, bool isLocal, bool upstream, Answers& answers);
    void ApplyAnswers(const Answers& answers, bool upstream);

    std::uint64_t rowsMovedOn_ = 0;  ///< ever; while consumers only answer "later" or the database takes
                                     ///< nothing, the step must not spin
};

#pragma once

#include <cstdint>
#include <set>
#include <utility>

#include "filestore/db/file_store_entry.h"
#include "filestore/state/worker_loop.h"

/// Connects files with the consumers, the modules of this device: asks them for missing files before the
/// parent is asked, and hands over to them the files that have arrived. Consumers are called on this thread,
/// without locks. The two jobs are public for tests, which call them on one thread.
class FileStoreHandleThread : public FileThreadBase {
  public:
    FileStoreHandleThread();

    /// Asks the consumers for one missing file; true when the step should look for more.
    bool LocalRequestFile(Side side);

    /// Hands over a batch of files, upstream several, which share what it costs consumers to have them on the
    /// disk; true when there were any. A step of the thread hands over no file twice, so that it ends while
    /// consumers put files off.
    bool HandleFile(Side side);

  protected:
    bool DoWork() override;

  private:
    struct Answers;

    bool DecideMissing(std::uint64_t fileId, Side side, bool isKnownToConsumer);
    bool HandOverBatches(Side side, Answers& answers);
    void HandOver(const FileStoreEntry& entry, bool isLocal, Side side, Answers& answers);
    bool SyncConsumers(Answers& answers);
    void ApplyAnswers(const Answers& answers, Side side);

    std::set<std::pair<Side, std::uint64_t>> putOff_;  ///< by consumers, in this step

    /// Rows that got another status, were put off or removed, since the start. A round that moves none ends
    /// the step: while the database refuses writes, the next one would do the same.
    std::uint64_t rowsMovedOn_ = 0;
};

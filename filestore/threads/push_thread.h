#pragma once

#include <cstdint>
#include <set>

#include "filestore/db/file_store_entry.h"
#include "filestore/threads/file_thread_base.h"
#include "kel/container.h"

/// Requests missing files from the parent and sends upstream files to it: announced first (send pass), then
/// put or packed into an archive (upload pass). The passes are public for tests, which call them on one
/// thread.
class FileStorePushThread : public FileThreadBase {
  public:
    enum class Outcome {
        Nothing = 0,  ///< nothing to do, or not allowed now
        Done = 1,     ///< rows were processed, more may follow
        Failed = 2,   ///< the parent is unknown or refused: leave it for now
    };

    FileStorePushThread();

    /// Draws the retry interval anew from the push time-out, so that the retries of many devices spread over
    /// time.
    void InitCurrentTimeout();

    /// Asks the parent for one file of the downstream database. Sets `reachedParent` when it answered.
    Outcome RequestFile(bool& reachedParent);

    /// Announces a batch of upstream files to the parent or gathers it for an archive; with `packedPass`
    /// archives only.
    Outcome SendFile(bool& reachedParent, bool packedPass);

    /// Puts a batch of announced files to the parent or adds it to the archive; with `packedPass` archives
    /// only.
    Outcome UploadFile(bool& reachedParent, bool packedPass);

  protected:
    bool DoWork() override;

  private:
    enum class Phase { Send = 0, Upload = 1 };
    struct Batch;
    struct UploadBatch;

    // push_thread.cpp
    bool StartManualUpload();
    bool RunPasses(bool& reachedParent);
    bool RunSendPass(bool packedPass, bool& reachedParent, bool& busy);
    void RunUploadPass(bool packedPass, bool& reachedParent, bool& busy);
    void FinishManualUpload();
    bool IsRecent(std::int64_t statusTime) const;

    // send_step.cpp
    bool SendRow(const FileStoreEntry& entry, const KelString& parentUrl, Batch& batch, bool& reachedParent);
    bool HandleRefusal(const FileStoreEntry& entry, unsigned int error);
    bool CreateArchive(const KelContainer& index);
    bool CommitBatch(const Batch& batch);

    // upload_step.cpp
    void TakeRow(const FileStoreEntry& entry, UploadBatch& batch);
    void PackRow(const FileStoreEntry& entry, const KelString& path, UploadBatch& batch);
    bool UploadRow(const FileStoreEntry& entry, const KelString& path, const KelString& parentUrl);
    void FinishArchive(UploadBatch& batch);
    bool EnterArchive();

    Phase phase_ = Phase::Upload;         ///< an unfinished upload is resumed before anything new is sent
    unsigned long currentTimeout_ = 300;  ///< seconds
    std::set<std::uint64_t>
        indexedFiles_;  ///< FileIds named in the index of the archive at strArchiveFilePath
    /// Rows that got another state or time, ever; those that are packed only once their archive is on its
    /// way. A round that takes none is over, whatever its passes report: the next one would do the same.
    std::uint64_t rowsTaken_ = 0;
};

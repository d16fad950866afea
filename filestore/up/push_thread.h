#pragma once

#include <cstdint>

#include "filestore/db/files_table.h"
#include "filestore/state/worker_loop.h"
#include "filestore/up/resumed_upload.h"
#include "filestore/up/small_files.h"
#include "filestore/up/upload_archive.h"

/// Requests missing files from the parent and sends upstream files to it: offered first (send pass), then put
/// or packed into an archive (upload pass). Parent and store are called without locks. The passes are public
/// for tests, which call them on one thread.
class FileStorePushThread : public FileThreadBase {
  public:
    enum class Outcome {
        Nothing = 0,  ///< nothing to do, or not allowed now
        Done = 1,     ///< rows were processed, more may follow
        Failed = 2,   ///< the parent, the archive or the database failed: the round ends
    };

    FileStorePushThread();

    /// Draws the retry interval anew from the push time-out, so that the retries of many devices spread over
    /// time.
    void InitCurrentTimeout();

    /// Asks the parent for one file of the downstream database. Sets `reachedParent` when it answered.
    /// (request_step.cpp)
    Outcome RequestFile(bool& reachedParent);

    /// Offers a batch of upstream files to the parent, or lists those that are to be packed in a new archive;
    /// with `packedPass` archives only. (send_step.cpp)
    Outcome SendFile(bool& reachedParent, bool packedPass);

    /// Puts a batch of files that the parent has accepted, and fills the archive; with `packedPass` archives
    /// only. (upload_step.cpp)
    Outcome UploadFile(bool& reachedParent, bool packedPass);

  protected:
    bool DoWork() override;

  private:
    enum class Phase { Send = 0, Upload = 1 };
    using SentFiles = KelVector<filestore::SentFile>;
    struct UploadPass;
    enum class Upload {
        Stored,
        Refused,  ///< this file only: it is offered or sent again
        Held,     ///< by the transfer window, which has closed
        Failed,   ///< no other file fares better now
    };

    // push_thread.cpp
    bool RunPasses(bool& reachedParent);
    bool RunSendPass(bool packedPass, bool& reachedParent, bool& busy);
    void RunUploadPass(bool packedPass, bool& reachedParent, bool& busy);
    /// A row of this status time is not tried yet; one in the future says nothing.
    bool IsRecent(std::int64_t statusTime) const;

    // send_step.cpp
    bool SendRow(const FileStoreEntry& entry, const KelString& parentUrl, SentFiles& sent,
                 bool& reachedParent);
    bool SendContents(filestore::SmallFiles& files, const KelString& parentUrl, SentFiles& sent,
                      bool& reachedParent);
    bool TakeAnswer(const FileStoreEntry& entry, unsigned int error, const KelContainer& answer,
                    const KelString& parentUrl, SentFiles& sent, bool& reachedParent);
    bool HandleRefusal(const FileStoreEntry& entry, unsigned int error);

    // upload_step.cpp
    void UploadOrPackRow(const FileStoreEntry& entry, UploadPass& pass);
    void PackRow(const FileStoreEntry& entry, const KelString& path, UploadPass& pass);
    Upload UploadRow(const FileStoreEntry& entry, const KelString& path, const UploadPass& pass);
    void FinishArchive(UploadPass& pass);

    Phase phase_ = Phase::Upload;         ///< an unfinished upload is resumed before anything new is sent
    unsigned long currentTimeout_ = 300;  ///< seconds
    // Parent URLs. What a parent says that has refused a call all the same counts for nothing.
    KelString takerOfContents_;    ///< that says it takes contents with offers
    KelString refuserOfContents_;  ///< that has refused them
    filestore::ResumedUploads uploads_;
    filestore::UploadArchive archive_;  ///< created by the last send pass, filled by the upload pass
    /// Rows that got another state or time, since the start; packed ones only once their archive is in the
    /// store. A round that adds none is the last of its step, whatever its passes report: the next one would
    /// do the same.
    std::uint64_t rowsTaken_ = 0;
};

#pragma once

#include <cstdint>

#include "filestore/db/file_store_entry.h"
#include "filestore/state/parent.h"
#include "filestore/state/worker_loop.h"
#include "kel/types.h"

/// Downloads announced files from the parent, or from the device that a row names as its source, verifies
/// their content and acknowledges them to the sender. Both jobs are public for tests, on any one thread.
///
/// download.cpp chooses and fetches a file, resume_download.h decides where the transfer begins,
/// download_outcome.h records what came of it, acknowledge.cpp acknowledges. damaged_copy.h has copies
/// verified, at the sender and here, that turned out to be of no use.
class FileStorePullThread : public FileThreadBase {
  public:
    FileStorePullThread();

    /// Works on the most urgent file that is to be downloaded, and on no other. 1 when there was one,
    /// whatever came of it. 0 when there was none, when it has to wait, and when the outcome could not be
    /// recorded: the step would otherwise fetch it again in a tight loop.
    int DownloadFile();

    /// Acknowledges one downloaded file to its sender: 1 when that was done and recorded, else 0.
    int AcknowledgeFile();

  protected:
    bool DoWork() override;

  private:
    /// One transfer and what came of it.
    struct Attempt {
        filestore::ParentWatch parent;  ///< from before the sender was looked up
        std::uint64_t largest = 0;      ///< size in bytes at which it is stopped
        std::uint64_t offset = 0;
        unsigned int status = 0;  ///< of the answer
        bool madeWay = false;     ///< stopped for a more urgent file, or because of another parent
        KelString errorText;      ///< why the client failed
    };

    /// True when the outcome is recorded.
    bool FetchByUnicast(const FileStoreEntry& file, const KelString& sender, Attempt& attempt);
    /// Result of the HTTP client.
    unsigned int Fetch(const FileStoreEntry& file, const KelString& sender, Attempt& attempt);
};

namespace filestore {

/// False, logged, while the device's link does not allow downloads.
bool DownloadsAreAllowed();

}  // namespace filestore

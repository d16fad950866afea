#pragma once

#include <cstdint>

#include "filestore/threads/file_thread_base.h"
#include "kel/types.h"

/// Downloads announced files from the parent (or the device that offered them), verifies and acknowledges
/// them.
class FileStorePullThread : public FileThreadBase {
  public:
    FileStorePullThread();

    /// Takes at most one file in hand: 1 when it did, whatever the outcome, else 0, also when the database
    /// did not take the outcome. Also for tests, on any one thread.
    int DownloadFile();

    /// Acknowledges at most one downloaded file to its sender: 1 when it did, else 0.
    int AcknowledgeFile();

  protected:
    bool DoWork() override;

  private:
    struct Download;
    struct Acknowledgement;

    // download.cpp
    static bool SelectDownload(Download& file);
    static bool HasSpace(const Download& file);
    static bool StartsComplete(const Download& file, std::uint64_t& offset);
    unsigned int Fetch(const Download& file, const KelString& sender, std::uint64_t offset,
                       unsigned int& status);
    static bool HasAnnouncedContent(const Download& file);
    // True when what became of the file is recorded.
    static bool ListenToMulticast(const Download& file);
    bool FetchByUnicast(const Download& file, const KelString& sender);
    static bool SettleComplete(const Download& file);
    static bool CheckReplacement(const Download& file);
    static bool KeepForRetry(const Download& file, unsigned int result);

    // acknowledge_step.cpp
    static bool SelectAcknowledgement(Acknowledgement& file);
    static unsigned int Call(const KelString& url, const Acknowledgement& file, const KelString& ownGuid);
    static void SettlePackage(const Acknowledgement& rule, const KelString& url, const KelString& ownGuid);
};

namespace filestore {

/// False, logged, when the device's link forbids downloads now.
bool DownloadsAreAllowed();

/// Where a file's sender is called: the device that the row names, or the parent; empty while unknown.
KelString SenderUrl(const KelString& sourceDevice);

}  // namespace filestore

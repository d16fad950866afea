#include "filestore/down/pull_thread.h"

#include "filestore/state/file_store.h"

FileStorePullThread::FileStorePullThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

// Alternating, so that a long queue of downloads does not hold back the acknowledgements of those that are
// done: until then the sender repeats its announcements.
bool FileStorePullThread::DoWork() {
    bool worked = false;
    do {
        const int downloaded = DownloadFile();
        const int acknowledged = AcknowledgeFile();
        worked = downloaded != 0 || acknowledged != 0;
    } while (worked && !CheckCancelled(false));
    return worked;
}

namespace filestore {

bool DownloadsAreAllowed() {
    bool dialupBlocked = false;
    if (FileStore::IsTransferAllowed(false, dialupBlocked)) return true;
    if (dialupBlocked)
        FileStore::debugFileStore.Print("PullThread: Downloads through dialup connection are disabled\n");
    else
        FileStore::debugFileStore.Print("PullThread: Downloads through slow connection are disabled\n");
    return false;
}

}  // namespace filestore

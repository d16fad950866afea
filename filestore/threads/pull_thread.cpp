#include "filestore/threads/pull_thread.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kelcore/agent.h"
#include "kelcore/http/url.h"

FileStorePullThread::FileStorePullThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

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

KelString SenderUrl(const KelString& sourceDevice) {
    if (!sourceDevice.empty()) return UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), sourceDevice);
    KelString url, parentGuid;
    FileStore::GetRelayUrl(url, parentGuid);
    return url;
}

}  // namespace filestore

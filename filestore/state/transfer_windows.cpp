#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

/// Held while the windows are asked for and loaded, so that an older answer cannot replace a newer one. Only
/// local calls are made under it, and the transfer window module makes no calls of its own while it answers.
KelMutex mutexWindows;

FileStoreBandwidthManager* ManagerOf(std::int32_t direction) {
    switch (direction) {
        case TransferWindowDirectionUp:
            return &FileStore::bmTrackUsageUp;
        case TransferWindowDirectionDown:
            return &FileStore::bmTrackUsageDown;
        case TransferWindowDirectionMulticast:
            return &FileStore::bmTrackUsageMulticast;
        default:
            return nullptr;
    }
}

}  // namespace

void FileStore::UpdateAllTransferWindows() {
    const KelLock lock(mutexWindows);
    KelContainer answer;
    if (CallLocal("TransferWindowCheckAllWindows", answer) != kKelOk) {
        debugFileStore.Detail("No transfer window.\n");
        return;
    }
    const KelContainer& windows = answer.GetContainer("Values");
    bmTrackUsageUp.ClearWindow();
    bmTrackUsageDown.ClearWindow();
    bmTrackUsageMulticast.ClearWindow();
    if (!windows.Has("Values")) return;
    for (std::uint32_t i = 0; i < windows.Count("Values"); ++i) {
        KelContainer window = windows.GetContainer("Values", i);
        if (FileStoreBandwidthManager* manager = ManagerOf(windows.GetInt32("Direction", 0, i)))
            manager->UpdateTransferWindow(window);
    }
}

unsigned int FileStore::ActionHandler_FileStoreTransferWindowCallback(KelContainer* /*arguments*/) {
    debugFileStore.Print("Received updated Transfer Window.\n");
    UpdateAllTransferWindows();
    for (const Worker worker : {Worker::Pull, Worker::Push, Worker::Notify})
        WakeWorker(worker);  // a window may have opened
    return kKelOk;
}

bool FileStore::IsTransferAllowed(bool upload, bool& dialupBlocked) {
    const bool dialupEnabled = upload ? fEnableDialupUploads : fEnableDialupDownloads;
    if (HaveActiveRASConnection() && !dialupEnabled) {
        dialupBlocked = true;
        return false;
    }
    if (HaveActiveSlowConnection(upload)) {
        dialupBlocked = false;
        return false;
    }
    return true;
}

// Dial-up and slow links are not recognised on this platform.
bool FileStore::HaveActiveRASConnection() {
    return false;
}

bool FileStore::HaveActiveSlowConnection(bool) {
    return false;
}

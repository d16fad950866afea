#include <algorithm>
#include <limits>

#include "filestore/db/file_status.h"
#include "filestore/module/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"

namespace {

/// Asking for the windows and loading them is one step: an answer must not replace a newer one. Held across
/// local calls only; the transfer window module calls nobody while it answers.
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

/// `size` as per cent of `whole` (above 0), at most 100, without overflow.
std::uint64_t Percent(std::int64_t size, long long whole) {
    if (size >= whole) return 100;
    if (size > std::numeric_limits<std::int64_t>::max() / 100)
        return static_cast<std::uint64_t>(size / (whole / 100));
    return static_cast<std::uint64_t>(size * 100 / whole);
}

}  // namespace

void FileStore::UpdateAllTransferWindows() {
    const KelLock lock(mutexWindows);
    KelContainer answer;
    if (ActionDbInvokeContainer(nullptr, "", "TransferWindowCheckAllWindows", answer, 0, -1, -1, nullptr) !=
        0) {
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
    return 0;
}

KelString FileStore::getFileTransferPercent(const KelString& status, const KelString& path,
                                            long long expectedSize) {
    if (status == filestore::kStatusAvailable || status == filestore::kStatusUnicastAvailable) return "100 %";
    const bool isArriving = status == filestore::kStatusDownloading || status == filestore::kStatusReceiving;
    const std::int64_t size = isArriving && expectedSize > 0 ? FileGetSize64(path) : -1;
    if (size < 0) return "N/A";
    return KelFormat("%gu %", Percent(size, expectedSize));
}

#include "filestore/module/file_store.h"

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

// This platform does not tell dial-up and slow links from others.
bool FileStore::HaveActiveRASConnection() {
    return false;
}

bool FileStore::HaveActiveSlowConnection(bool) {
    return false;
}

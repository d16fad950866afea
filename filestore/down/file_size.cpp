#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

// The size of a file that this device may not have: asked from device to device up the tree, until one has
// the file. The row of an announced file holds the announced size; what counts here is content on a disk.

namespace {

constexpr const char* kAction = "FileStoreRequestFileSize";

/// The size of an available file of the own store; false when there is none.
bool FindOwnFileSize(const FileKey& key, long long& size) {
    FileStoreEntry entry(key);
    {
        const KelLock lock(FileStore::mutexDownstream);
        if (!LoadKnownFile(Side::Downstream, entry)) return false;
    }
    if (entry.FileStatus != kStatusAvailable && entry.FileStatus != kStatusUnicastAvailable) return false;
    const std::int64_t onDisk = FileGetSize64(ContentPath(entry, Side::Downstream));
    if (onDisk < 0) return false;
    size = onDisk;
    return true;
}

/// Without a parent nothing is called: an empty call URL would ask this device again, without end.
unsigned int AskParent(KelContainer& call) {
    KelString parent;
    KelString parentGuid;
    FileStore::GetRelayUrl(parent, parentGuid);
    return parent.empty() ? static_cast<unsigned int>(kKelErrorUnreachable)
                          : CallDevice(parent, kAction, call);
}

}  // namespace

unsigned int FileStore::RequestFileSize(const FileKey& key, long long& size) {
    size = 0;
    if (FindOwnFileSize(key, size)) return kKelOk;

    KelContainer call;
    key.Write(call);
    if (const unsigned int error = AskParent(call); error != kKelOk) {
        debugFileStore.Error(
            "unable to retrieve file size for type '%S', label '%S', name '%S', checksum '%S'\n", key.type,
            key.label, key.name, key.checksum);
        return error;
    }
    size = call.GetInt64(kValueFileSize);
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreRequestFileSize(KelContainer* arguments) {
    const FileKey key = FileKey::Read(*arguments);
    if (!CheckFileKey(key, true) ||
        !CheckDeviceText(kValueDeviceGuid, arguments->GetString(kValueDeviceGuid)))
        return kKelErrorBadInput;
    long long size = 0;
    const unsigned int error = RequestFileSize(key, size);
    if (error == kKelOk) arguments->SetInt64(kValueFileSize, size);
    return error;
}

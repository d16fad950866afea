#include "filestore/up/patch_inventory.h"

#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/information_table.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace filestore {

void NoteUploadedInventory(const FileStoreEntry& file) {
    // What came from a device below names its first relay.
    if (file.FileType != kPatchInventoryType || !file.FirstRelay.empty()) return;
    WriteInformation(kPatchInventoryField, KelFormat("%gd", std::int64_t{std::time(nullptr)}),
                     Side::Upstream);
}

}  // namespace filestore

/// A packed inventory has arrived when no archive waits any more; its time is not known.
unsigned int FileStore::ActionHandler_FileStoreIsPatchInventoryUploaded(KelContainer* arguments) {
    arguments->Clear();
    const auto uploaded = ReadInformation(kPatchInventoryField, Side::Upstream);
    const FileRows newest = SelectNewestOwnFile(kPatchInventoryType);
    arguments->SetBool("IsKnown", uploaded || !newest.empty());
    if (newest.empty()) {
        arguments->SetBool("IsUploaded", uploaded.has_value());
        arguments->SetInt64("UploadTime", uploaded ? ParseInt64(*uploaded).value_or(0) : 0);
        return kKelOk;
    }
    const FileStoreEntry& file = newest.front();
    const bool isSent = file.FileStatus == kStatusAvailable;
    const bool isPacked = file.FileStatus == kStatusPackedFile && !HasArchivesToUpload();
    file.Key().Write(*arguments);
    arguments->SetString("FileStatus", file.FileStatus);
    arguments->SetInt64("CreateTime", file.CreateTime);
    arguments->SetBool("IsUploaded", isSent || isPacked);
    arguments->SetInt64("UploadTime", isSent && uploaded ? ParseInt64(*uploaded).value_or(0) : 0);
    return kKelOk;
}

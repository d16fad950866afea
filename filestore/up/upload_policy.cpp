#include "filestore/up/upload_policy.h"

#include <algorithm>
#include <array>

#include "filestore/db/file_status.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/state/file_store.h"
#include "filestore/up/upload_archive.h"
#include "kel/text.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// The most rows of one pass, unless ConcatFiles is on, where MaxFilesToConcat applies.
constexpr unsigned int kBatchSize = 50;

KelString ExcludedTypes() {
    const KelLock lock(FileStore::mutexSettings);
    return FileStore::strExcludedFileType;
}

bool IsManualPolicy() {
    return !FileStore::fProcessManualUpload && FileStore::fConcatFiles && !FileStore::fAutoConcat;
}

/// Under the manual policy only the excluded types pass; false when there are none.
bool ApplyManualPolicy(UploadFilter& filter) {
    const KelString excluded = ExcludedTypes();
    if (excluded.empty()) {
        FileStore::debugFileStore.Trace("PushThread: Upload policy is configured to be manual\n");
        return false;
    }
    FileStore::debugFileStore.Trace(
        "PushThread: Upload policy is configured to be manual, except for files with the following type: "
        "%S\n",
        excluded);
    for (const KelString& type : SplitText(excluded, ','))
        filter.types.push_back(Trim(type));
    return true;
}

unsigned int BatchSize() {
    return FileStore::fConcatFiles ? FileStore::uMaxFilesToConcat.load() : kBatchSize;
}

}  // namespace

bool IsPacking() {
    return FileStore::fProcessManualUpload || FileStore::fConcatFiles;
}

std::optional<UploadFilter> UploadFilterNow(bool packedPass, const char* lookingFor) {
    UploadFilter filter;
    filter.archivesOnly = packedPass;
    if (!packedPass && IsManualPolicy() && !ApplyManualPolicy(filter)) return std::nullopt;
    FileStore::debugFileStore.Trace("PushThread: Looking for %s\n", lookingFor);
    if (!IsUploadAllowed()) return std::nullopt;
    filter.passing = PassingNow();
    filter.limit = BatchSize();
    return filter;
}

void WakeToSend(const KelString& type) {
    constexpr std::array kAwaitedTypes = {kPackedFilesType, kIdentityFileType, kReceiptFileType};
    if (!FileStore::fConcatFiles || std::ranges::find(kAwaitedTypes, type) != kAwaitedTypes.end())
        FileStore::WakeWorker(Worker::Push);
}

bool IsUploadAllowed() {
    bool dialupBlocked = false;
    if (FileStore::IsTransferAllowed(true, dialupBlocked)) return true;
    FileStore::debugFileStore.Print("PushThread: Uploads through %s connection are disabled\n",
                                    dialupBlocked ? "dialup" : "slow");
    return false;
}

}  // namespace filestore

#include "filestore/transfer/upload_policy.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/text.h"

#include <algorithm>

namespace filestore {

namespace {

constexpr unsigned int kBatchSize = 50;
constexpr unsigned int kMostPackedFiles =
    9999;  ///< receivers unpack 10000 entries by default, index included

KelString ExcludedTypes() {
    const KelLock lock(FileStore::mutexSettings);
    return FileStore::strExcludedFileType;
}

KelString TypesFilter(const KelString& types) {
    KelString filter = " AND (";
    const char* separator = "";
    for (const KelString& type : SplitText(types, ',')) {
        filter += KelFormat("%s%s = '%Q'", separator, kFileType, Trim(type));
        separator = " OR ";
    }
    return filter + ") ";
}

}  // namespace

bool IsPacking() {
    return FileStore::fProcessManualUpload || FileStore::fConcatFiles;
}

std::optional<KelString> UploadPolicyFilter(bool packedPass, const char* lookingFor) {
    KelString filter;
    if (packedPass) {
        filter = KelFormat(" AND %s = '%s'", kFileType, kPackedFilesType);
    } else if (!FileStore::fProcessManualUpload && FileStore::fConcatFiles && !FileStore::fAutoConcat) {
        const KelString excluded = ExcludedTypes();
        if (excluded.empty()) {
            FileStore::debugFileStore.Trace("PushThread: Upload policy is configured to be manual\n");
            return std::nullopt;
        }
        FileStore::debugFileStore.Trace(
            "PushThread: Upload policy is configured to be manual, except for files with the following type: "
            "%S\n",
            excluded);
        filter = TypesFilter(excluded);
    }
    FileStore::debugFileStore.Trace("PushThread: Looking for %s\n", lookingFor);
    return filter;
}

bool IsUploadAllowed() {
    bool dialupBlocked = false;
    if (FileStore::IsTransferAllowed(true, dialupBlocked)) return true;
    FileStore::debugFileStore.Print("PushThread: Uploads through %s connection are disabled\n",
                                    dialupBlocked ? "dialup" : "slow");
    return false;
}

unsigned int UploadBatchSize() {
    return FileStore::fConcatFiles ? std::clamp(FileStore::uMaxFilesToConcat.load(), 1U, kMostPackedFiles)
                                   : kBatchSize;
}

}  // namespace filestore

#include "filestore/up/upload_check.h"

#include "filestore/db/file_status.h"
#include "filestore/state/file_store.h"
#include "filestore/up/archive_intake.h"
#include "filestore/up/upstream_file.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace filestore {

unsigned int CheckUpload(const KelString& url, const KelString& content) {
    const auto place = ParseStoredUrl(url);
    if (!place || place->side != Side::Upstream) return kKelOk;
    const auto file = FindUpstreamFileOfUrl(url);
    if (!file) return kKelErrorNotAvailable;
    if (!file->row) {
        FileStore::debugFileStore.Warning("Refusing the upload of %S: it was not offered\n", url);
        return kKelAnswerNotExpected;
    }
    const FileStoreEntry& entry = *file->row;
    const std::int64_t size = FileGetSize64(content);
    KelString checksum;
    if (size < 0 || !FileMd5(content, checksum)) {
        FileStore::debugFileStore.Error("Refusing the upload of %S: it cannot be read back\n", url);
        return kKelErrorNotAvailable;
    }
    if (size != entry.FileSize || !IsEqualTo(checksum, entry.FileChecksum, false)) {
        FileStore::debugFileStore.Warning(
            "Refusing the upload of %S from %S: %ld bytes with the checksum %S have come, %ld bytes were "
            "offered; the sender checks its copy and tries again\n",
            url, entry.SourceDevice, size, checksum, entry.FileSize);
        return kKelAnswerOtherContent;
    }
    if (entry.FileType == kPackedFilesType && !IsPackedArchive(content)) {
        FileStore::debugFileStore.Warning(
            "Refusing the upload of %S from %S: it is no archive of upstream files\n", url,
            entry.SourceDevice);
        return kKelAnswerOtherContent;
    }
    return kKelOk;
}

}  // namespace filestore

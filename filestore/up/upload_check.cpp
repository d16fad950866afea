#include "filestore/up/upload_check.h"

#include "filestore/db/file_status.h"
#include "filestore/state/caller.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/up/unpacked_archive.h"
#include "filestore/up/upload_senders.h"
#include "filestore/up/upstream_file.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

bool IsOfStore(const KelString& url) {
    const auto place = ParseStoredUrl(url);
    return place && place->side == Side::Upstream;
}

/// Finds the row that waits for an upload; kKelOk, or why it is refused.
unsigned int FindRow(const KelString& url, FileStoreEntry& entry) {
    const auto file = FindUpstreamFileOfUrl(url);
    if (!file) return kKelErrorNotAvailable;
    if (!file->row) {
        FileStore::debugFileStore.Warning("Refusing the upload of %S: it was not offered\n", url);
        return kKelAnswerNotExpected;
    }
    entry = *file->row;
    return kKelOk;
}

/// True when the row that the URL names is of a file of the caller, or of one that a relay passes on, which
/// the row does not name.
bool IsOfSource(const KelString& url, const KelContainer& arguments) {
    FileStoreEntry entry;
    return FindRow(url, entry) != kKelOk || entry.FirstRelay != OurDeviceUrl() ||
           IsCallOf(arguments, entry.SourceDevice);
}

/// The alias of the upstream store; what lies beside its files is nothing that others may put there.
constexpr std::string_view kUpstreamUrl = "/FileStore/upstream/";

}  // namespace

unsigned int CheckUploadSender(const KelString& url, const KelContainer& arguments) {
    const KelString address = ActionRequestAddress(arguments);
    const bool isOfStore = IsOfStore(url);
    if (!isOfStore && !url.starts_with(kUpstreamUrl)) return kKelOk;
    const auto isSender = IsUploadSender(url, arguments);
    if (isOfStore && (isSender ? *isSender : IsOfSource(url, arguments))) return kKelOk;
    FileStore::failures.Failed(
        KelDebugLevel::Warning, "upload from " + address,
        KelFormat("Refusing the upload of %S from %S, which has not offered it", url, address));
    return kKelAnswerNotExpected;
}

unsigned int ExpectUpload(const KelString& url, std::int64_t size) {
    if (!IsOfStore(url)) return kKelOk;
    FileStoreEntry entry;
    if (const unsigned int error = FindRow(url, entry); error != kKelOk) return error;
    if (size != entry.FileSize) {
        FileStore::debugFileStore.Warning(
            "Refusing the upload of %S from %S: it has %ld bytes, %ld bytes were offered; the sender checks "
            "its copy and tries again\n",
            url, entry.SourceDevice, size, entry.FileSize);
        return kKelAnswerOtherContent;
    }
    if (entry.FileStatus != kStatusReceiving) return kKelOk;
    return kKelAnswerExpected;
}

unsigned int CheckUpload(const KelString& url, const KelString& content) {
    if (!IsOfStore(url)) return kKelOk;
    FileStoreEntry entry;
    if (const unsigned int error = FindRow(url, entry); error != kKelOk) return error;
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

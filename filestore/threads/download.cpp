#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/pull_thread.h"
#include "filestore/transfer/http_transfer.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/action_db.h"

using namespace filestore;

/// The row of a file that is to be downloaded.
struct FileStorePullThread::Download {
    unsigned long id = 0;
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;
    KelString url;
    std::int64_t size = 0;  ///< announced, 0: unknown
    bool bypass = false;
    KelString multicastAddress;
    std::uint32_t multicastPort = 0;
    std::uint32_t multicastBlockSize = 0;
    KelString transportMode;
    KelString sourceDevice;
    KelString folder;
    KelString path;  ///< of the local file
};

namespace {

constexpr unsigned int kPathNotFound = 3;  ///< DiskFree

std::int64_t Now() {
    return std::time(nullptr);
}

// A download takes long: an offer of a module here, an order of the parent, may have settled the row and its
// content meanwhile. What follows leaves a row alone that is not to be downloaded any more.

/// The caller holds mutexDownstream when it goes on to write.
bool IsStillWanted(unsigned long fileId) {
    return FileStore::pDbConnectionDownstream->ReadString(kTableFiles, kFileStatus, kFileId, fileId) ==
           kStatusDownloading;
}

/// `set` holds the columns with their new values. False when the database failed.
bool UpdateWanted(unsigned long fileId, const KelString& set) {
    const KelLock lock(FileStore::mutexDownstream);
    return FileStore::pDbConnectionDownstream->Query(
               KelFormat("UPDATE %s SET %S WHERE %s = %lu AND %s = '%s'", kTableFiles, set, kFileId, fileId,
                         kFileStatus, kStatusDownloading)) != nullptr;
}

/// Back to waiting.
bool WaitForRetry(unsigned long fileId) {
    return SetFileStatus(false, fileId, kStatusDownloading, kStatusDownloading, TakenUp::AfterTimeout);
}

void DeleteContent(unsigned long fileId, const KelString& path) {
    const KelLock lock(FileStore::mutexDownstream);
    if (IsStillWanted(fileId)) FileDelete(path);
}

/// Removes useless content and asks for it again.
bool AskAgain(unsigned long fileId, const KelString& path) {
    const KelLock lock(FileStore::mutexDownstream);
    DeleteContent(fileId, path);
    return UpdateWanted(fileId, KelFormat("%s = %ld, %s = 0", kLastStatusChangeTime, Now(), kAcknowledged));
}

/// The content at `path` is complete and verified.
bool SetAvailable(unsigned long fileId, const KelString& path) {
    return UpdateWanted(fileId, KelFormat("%s = %gu, %s = '%s', %s = 0, %s = 0", kFileSize,
                                          static_cast<std::uint64_t>(FileGetSize64(path)), kFileStatus,
                                          kStatusAvailable, kLastStatusChangeTime, kAcknowledged));
}

/// Bytes free where the folder is or will be made. 0, or the error of DiskFree.
unsigned int FreeSpace(const KelString& folder, std::uint64_t& bytes) {
    const unsigned int error = DiskFree(folder, bytes);
    return error == kPathNotFound ? DiskFree(FileStore::strStorageLocationToUse, bytes) : error;
}

}  // namespace

int FileStorePullThread::DownloadFile() {
    FileStore::debugFileStore.Trace("PullThread: Looking for files to download\n");
    Download file;
    if (!DownloadsAreAllowed() || !SelectDownload(file)) return 0;
    if (FileStore::fCheckAvailableFreeSpaceBeforeDownloading && !HasSpace(file)) return 0;
    if (!PathCreate(file.folder)) {
        FileStore::debugFileStore.Error(
            "PullThread: Cannot create the folder %S: check space and permissions\n", file.folder);
        return WaitForRetry(file.id) ? 1 : 0;
    }
    // Nothing is fetched, again and again, while the database takes nothing.
    if (!UpdateWanted(file.id, KelFormat("%s = '%Q'", kFilePath, file.path))) return 0;
    if (!IsStillWanted(file.id)) return 1;
    const KelString sender = SenderUrl(file.sourceDevice);
    if (sender.empty()) {
        WaitForRetry(file.id);
        return 0;
    }
    const bool isMulticast = file.multicastPort != 0 && !file.multicastAddress.empty();
    const bool recorded = isMulticast ? ListenToMulticast(file) : FetchByUnicast(file, sender);
    return recorded ? 1 : 0;
}

bool FileStorePullThread::SelectDownload(Download& file) {
    const auto result = FileStore::pDbConnectionDownstream->Query(
        KelFormat("SELECT * FROM %s WHERE %s = '%s' AND %s < %ld %S ORDER BY %s DESC, %s ASC LIMIT 1",
                  kTableFiles, kFileStatus, kStatusDownloading, kLastStatusChangeTime,
                  Now() - FileStore::ulPullTimeout, BypassFilter(), kPriority, kFileId));
    if (result == nullptr || result->GetRowCount() == 0) return false;
    file.id = static_cast<unsigned long>(result->GetInt64(0, kFileId));
    file.type = result->GetString(0, kFileType);
    file.label = result->GetString(0, kFileLabel);
    file.name = result->GetString(0, kFileName);
    file.checksum = result->GetString(0, kFileChecksum);
    file.url = result->GetString(0, kFileUrl);
    file.size = result->GetInt64(0, kFileSize);
    file.bypass = result->GetBool(0, kBypass);
    file.multicastAddress = result->GetString(0, kMulticastAddress);
    file.multicastPort = result->GetUint32(0, kMulticastPort);
    file.multicastBlockSize = result->GetUint32(0, kMulticastBlockSize);
    file.transportMode = result->GetString(0, kTransportMode);
    file.sourceDevice = result->GetString(0, kSourceDevice);
    file.folder = FileStore::StoreFolder(false, file.type, file.label, file.checksum);
    file.path = KelFormat("%S/%S", file.folder, file.name);
    return true;
}

bool FileStorePullThread::HasSpace(const Download& file) {
    std::uint64_t free = 0;
    const unsigned int error = FreeSpace(file.folder, free);
    if (error != 0) return error == kPathNotFound;
    long long needed = file.size;
    if (needed == 0) FileStore::RequestFileSize(file.type, file.label, file.name, file.checksum, needed);
    if (needed <= 0 || static_cast<std::uint64_t>(needed) <= free) return true;
    FileStore::debugFileStore.Error(
        "PullThread: Not enough available free space to download the file %S. Only %gu bytes available. %gu "
        "bytes needed.\n",
        file.name, free, static_cast<std::uint64_t>(needed));
    WaitForRetry(file.id);
    return false;
}

bool FileStorePullThread::ListenToMulticast(const Download& file) {
    FileStore::debugFileStore.Print("PullThread: Multicast transfer on address : %S and port : %lu.\n",
                                    file.multicastAddress, file.multicastPort);
    KelContainer call;
    call.SetString("MulticastAddress", file.multicastAddress);
    call.SetInt32("MulticastPort", static_cast<std::int32_t>(file.multicastPort));
    call.SetInt32("MulticastBlockSize", static_cast<std::int32_t>(file.multicastBlockSize));
    call.SetInt64("FileSize", file.size);
    call.SetString("FileURL", file.url);
    call.SetString("LocalPath", file.path);
    call.SetString("FileChecksum", file.checksum);
    ActionDbInvokeContainer(nullptr, "", "HttpProtocolMulticastStartListen", call, 0, -1, -1, nullptr);
    return SetFileStatus(false, file.id, kStatusDownloading, kStatusMulticastListening, TakenUp::AtOnce);
}

bool FileStorePullThread::FetchByUnicast(const Download& file, const KelString& sender) {
    std::uint64_t offset = 0;
    if (StartsComplete(file, offset)) return SettleComplete(file);
    unsigned int status = 0;
    const unsigned int result = Fetch(file, sender, offset, status);
    if (!IsStillWanted(file.id)) return CheckReplacement(file);
    if (result != kHttpCompleted) return KeepForRetry(file, result);
    if (status != 200 && status != 206) {
        FileStore::debugFileStore.Warning("PullThread: Relay does not have the requested file\n");
        return AskAgain(file.id, file.path);
    }
    return HasAnnouncedContent(file) ? SetAvailable(file.id, file.path) : AskAgain(file.id, file.path);
}

/// Looks at what an earlier attempt left: true when it is all there, otherwise `offset` is where the download
/// goes on.
bool FileStorePullThread::StartsComplete(const Download& file, std::uint64_t& offset) {
    if (file.transportMode == kTransportUnicastRecovery) DeleteContent(file.id, file.path);
    const std::int64_t present = FileExists(file.path) ? FileGetSize64(file.path) : -1;
    if (present < 0) return false;
    if (file.size != 0 && present > file.size) {
        FileStore::debugFileStore.Warning(
            "PullThread: The partial file %S is longer than announced, starting again\n", file.path);
        DeleteContent(file.id, file.path);
        return false;
    }
    if (file.size != 0 && present == file.size) return true;
    offset = static_cast<std::uint64_t>(present);
    return false;
}

/// The complete local file may stem from a download that ended before it was verified or on the disk.
bool FileStorePullThread::SettleComplete(const Download& file) {
    FileStore::debugFileStore.Print("PullThread: Try to download an already available file (%S)\n",
                                    file.name);
    if (!HasAnnouncedContent(file)) return AskAgain(file.id, file.path);
    if (FileSync(file.path)) return SetAvailable(file.id, file.path);
    FileStore::debugFileStore.Error("PullThread: Cannot bring %S to the disk: check space and permissions\n",
                                    file.path);
    return WaitForRetry(file.id);
}

unsigned int FileStorePullThread::Fetch(const Download& file, const KelString& sender, std::uint64_t offset,
                                        unsigned int& status) {
    HttpTransfer transfer("PullThread", sender, [this] { return CheckCancelled(false); });
    HttpMessage request;
    request.SetMethod(HttpMethod::Get);
    request.SetResourcePath(file.url);
    request.SetRangeStart(offset);
    HttpFileMessage answer;
    answer.SetBodyFile(file.path);
    answer.SetExpectedSize(static_cast<std::uint64_t>(file.size));
    FileStore::debugFileStore.Print("PullThread: Downloading URL %S (offset %gu)\n", file.url, offset);
    const unsigned int result = transfer.Run(request, answer, file.bypass);
    FileStore::debugFileStore.Print("PullThread: Download from %S returned %u\n", file.url, result);
    if (result != kHttpCompleted && result != kHttpCutOff)
        FileStore::debugFileStore.Detail("PullThread: %S\n", transfer.GetErrorText());
    status = answer.GetStatus();
    return result;
}

bool FileStorePullThread::KeepForRetry(const Download& file, unsigned int result) {
    if (result == kHttpCutOff) {
        const std::int64_t present = FileGetSize64(file.path);
        return UpdateWanted(file.id, KelFormat("%s = %gu, %s = %ld", kTransferredBytes,
                                               static_cast<std::uint64_t>(present < 0 ? 0 : present),
                                               kLastStatusChangeTime, Now()));
    }
    FileStore::debugFileStore.Error("PullThread: Failed to download file %S\n", file.name);
    FileStore::debugFileStore.Trace("PullThread: Received HTTP Client Error %d\n", static_cast<int>(result));
    return WaitForRetry(file.id);
}

/// A body that began to arrive after an offer of a module here has put its content in place was written over
/// that: what it spoilt is asked for again.
bool FileStorePullThread::CheckReplacement(const Download& file) {
    FileStoreEntry entry;
    const bool isSpoilt = entry.LoadFromDatabase(file.id, false) && entry.FileStatus == kStatusAvailable &&
                          entry.FilePath == file.path && !HasAnnouncedContent(file);
    if (!isSpoilt) return true;
    const bool recorded =
        SetFileStatus(false, file.id, kStatusAvailable, kStatusToBeRequested, TakenUp::AtOnce);
    FileStore::threadPush.WakeUp();
    return recorded;
}

bool FileStorePullThread::HasAnnouncedContent(const Download& file) {
    FileStore::debugFileStore.Print("PullThread: Calculating checksum\n");
    KelString checksum;
    FileMd5(file.path, checksum);
    FileStore::debugFileStore.Print("PullThread: File checksum is %S\n", checksum);
    if (checksum == file.checksum || file.type == "OperationalRuleNetworkPackageInfo") return true;
    FileStore::debugFileStore.Error("PullThread: File checksum is invalid, requesting again\n");
    return false;
}

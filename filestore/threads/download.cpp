#include <ctime>

#include "filestore/db/file_status.h"
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

void RunUpdate(const KelString& statement) {
    const KelLock lock(FileStore::mutexDownstream);
    FileStore::pDbConnectionDownstream->Query(statement);
}

/// Back to waiting.
void WaitForRetry(unsigned long fileId) {
    SetFileStatus(false, fileId, kStatusDownloading, TakenUp::AfterTimeout);
}

/// The same for a file whose content was useless and is gone.
void AskAgain(unsigned long fileId) {
    RunUpdate(KelFormat("UPDATE %s SET %s = '%s', %s = %ld, %s = 0 WHERE %s = %lu", kTableFiles, kFileStatus,
                        kStatusDownloading, kLastStatusChangeTime, Now(), kAcknowledged, kFileId, fileId));
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
        WaitForRetry(file.id);
        return 1;
    }
    RunUpdate(KelFormat("UPDATE %s SET %s = '%Q' WHERE %s = %lu", kTableFiles, kFilePath, file.path, kFileId,
                        file.id));
    const KelString sender = SenderUrl(file.sourceDevice);
    if (sender.empty()) {
        WaitForRetry(file.id);
        return 0;
    }
    return ListenToMulticast(file) ? 1 : FetchByUnicast(file, sender);
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
    if (file.multicastPort == 0 || file.multicastAddress.empty()) return false;
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
    RunUpdate(KelFormat("UPDATE %s SET %s = '%s', %s = 0 WHERE %s = %lu", kTableFiles, kFileStatus,
                        kStatusMulticastListening, kLastStatusChangeTime, kFileId, file.id));
    return true;
}

int FileStorePullThread::FetchByUnicast(const Download& file, const KelString& sender) {
    std::uint64_t offset = 0;
    if (StartsComplete(file, offset)) return 1;
    unsigned int status = 0;
    const unsigned int result = Fetch(file, sender, offset, status);
    if (result != kHttpCompleted) {
        KeepForRetry(file, result);
    } else if (status != 200 && status != 206) {
        FileStore::debugFileStore.Warning("PullThread: Relay does not have the requested file\n");
        FileDelete(file.path);
        AskAgain(file.id);
    } else if (HasAnnouncedContent(file)) {
        RunUpdate(KelFormat("UPDATE %s SET %s = %gu, %s = '%s', %s = 0, %s = 0 WHERE %s = %lu", kTableFiles,
                            kFileSize, static_cast<std::uint64_t>(FileGetSize64(file.path)), kFileStatus,
                            kStatusAvailable, kLastStatusChangeTime, kAcknowledged, kFileId, file.id));
    }
    return 1;
}

/// Looks at what an earlier attempt left: true when the file is settled, otherwise `offset` is where the
/// download goes on.
bool FileStorePullThread::StartsComplete(const Download& file, std::uint64_t& offset) {
    if (file.transportMode == kTransportUnicastRecovery) FileDelete(file.path);
    const std::int64_t present = FileExists(file.path) ? FileGetSize64(file.path) : -1;
    if (present < 0) return false;
    if (file.size != 0 && present > file.size) {
        FileStore::debugFileStore.Warning(
            "PullThread: The partial file %S is longer than announced, starting again\n", file.path);
        FileDelete(file.path);
        return false;
    }
    if (file.size == 0 || present != file.size) {
        offset = static_cast<std::uint64_t>(present);
        return false;
    }
    FileStore::debugFileStore.Print("PullThread: Try to download an already available file (%S)\n",
                                    file.name);
    // It may stem from a download that ended before it was verified or on the disk.
    if (HasAnnouncedContent(file) && FileSync(file.path))
        RunUpdate(KelFormat("UPDATE %s SET %s = '%s', %s = 0, %s = 0 WHERE %s = %lu", kTableFiles,
                            kFileStatus, kStatusAvailable, kLastStatusChangeTime, kAcknowledged, kFileId,
                            file.id));
    return true;
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

void FileStorePullThread::KeepForRetry(const Download& file, unsigned int result) {
    if (result == kHttpCutOff) {
        const std::int64_t present = FileGetSize64(file.path);
        RunUpdate(KelFormat("UPDATE %s SET %s = %gu, %s = '%s', %s = %ld WHERE %s = %lu", kTableFiles,
                            kTransferredBytes, static_cast<std::uint64_t>(present < 0 ? 0 : present),
                            kFileStatus, kStatusDownloading, kLastStatusChangeTime, Now(), kFileId, file.id));
        return;
    }
    WaitForRetry(file.id);
    FileStore::debugFileStore.Error("PullThread: Failed to download file %S\n", file.name);
    FileStore::debugFileStore.Trace("PullThread: Received HTTP Client Error %d\n", static_cast<int>(result));
}

/// Compares the local file with the announced checksum; a wrong file is removed and asked for again.
bool FileStorePullThread::HasAnnouncedContent(const Download& file) {
    FileStore::debugFileStore.Print("PullThread: Calculating checksum\n");
    KelString checksum;
    FileMd5(file.path, checksum);
    FileStore::debugFileStore.Print("PullThread: File checksum is %S\n", checksum);
    if (checksum == file.checksum || file.type == "OperationalRuleNetworkPackageInfo") return true;
    FileStore::debugFileStore.Error("PullThread: File checksum is invalid, requesting again\n");
    FileDelete(file.path);
    AskAgain(file.id);
    return false;
}

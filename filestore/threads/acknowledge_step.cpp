#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/pull_thread.h"
#include "filestore/transfer/http_transfer.h"
#include "kel/format.h"
#include "kelcore/action_db.h"

using namespace filestore;

/// The row of a file that is to be acknowledged, or the key of a package that a rule file names.
struct FileStorePullThread::Acknowledgement {
    unsigned long id = 0;
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;
    KelString sourceDevice;
};

namespace {

constexpr const char* kAction = "FileStoreAcknowledgeFile";

bool RunUpdate(const KelString& statement) {
    const KelLock lock(FileStore::mutexDownstream);
    return FileStore::pDbConnectionDownstream->Query(statement) != nullptr;
}

void WaitForRetry(unsigned long fileId) {
    SetFileStatus(false, fileId, kStatusAvailable, kStatusAvailable, TakenUp::AfterTimeout);
}

}  // namespace

int FileStorePullThread::AcknowledgeFile() {
    FileStore::debugFileStore.Trace("PullThread: Looking for downloaded files to acknowledge\n");
    if (!DownloadsAreAllowed()) return 0;
    KelString ownGuid;
    FileStore::GetOurDeviceGUID(ownGuid, true);
    if (ownGuid.empty()) {
        FileStore::debugFileStore.Print("PullThread: Do not have a GUID yet so will not send request\n");
        return 0;
    }
    Acknowledgement file;
    if (!SelectAcknowledgement(file)) return 0;
    FileStore::debugFileStore.Print("PullThread: Acknowledging %S/%S/%S upstream\n", file.type, file.label,
                                    file.name);
    const KelString url = SenderUrl(file.sourceDevice);
    if (url.empty()) {
        WaitForRetry(file.id);
        return 0;
    }
    if (const unsigned int error = Call(url, file, ownGuid); error != 0) {
        FileStore::debugFileStore.Error("PullThread: Failed to call %S, error %u\n", KelString(kAction),
                                        error);
        WaitForRetry(file.id);
        return 0;
    }
    if (!RunUpdate(KelFormat("UPDATE %s SET %s = 1 WHERE %s = %lu AND %s = '%s'", kTableFiles, kAcknowledged,
                             kFileId, file.id, kFileStatus, kStatusAvailable)))
        return 0;  // it would be told again at once, for as long as the database takes nothing
    if (file.type == "OperationalRuleAdministratedRelay") SettlePackage(file, url, ownGuid);
    return 1;
}

bool FileStorePullThread::SelectAcknowledgement(Acknowledgement& file) {
    const auto result = FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s = '%s' AND %s = 0 AND %s = 0 AND "
        "%s < %ld %S LIMIT 1",
        kFileId, kFileType, kFileLabel, kFileName, kFileChecksum, kSourceDevice, kFileStatus, kUpstream,
        kAcknowledged, kLastStatusChangeTime, kTableFiles, kFileStatus, kStatusAvailable, kUpstream,
        kAcknowledged, kLastStatusChangeTime,
        static_cast<std::int64_t>(std::time(nullptr)) - FileStore::ulPullTimeout, BypassFilter()));
    if (result == nullptr || result->GetRowCount() == 0) return false;
    file.id = static_cast<unsigned long>(result->GetInt64(0, kFileId));
    file.type = result->GetString(0, kFileType);
    file.label = result->GetString(0, kFileLabel);
    file.name = result->GetString(0, kFileName);
    file.checksum = result->GetString(0, kFileChecksum);
    file.sourceDevice = result->GetString(0, kSourceDevice);
    return true;
}

unsigned int FileStorePullThread::Call(const KelString& url, const Acknowledgement& file,
                                       const KelString& ownGuid) {
    KelContainer call;
    call.SetString("FileType", file.type);
    call.SetString("FileLabel", file.label);
    call.SetString("FileName", file.name);
    call.SetString("FileChecksum", file.checksum);
    call.SetString("DeviceGUID", ownGuid);
    return ActionDbInvokeContainer(nullptr, url, kAction, call, 0, -1, -1, nullptr);
}

/// The rule file tells that this device is no child of the sender for the package it names: the package is
/// not waited for any more, and acknowledged in its place.
void FileStorePullThread::SettlePackage(const Acknowledgement& rule, const KelString& url,
                                        const KelString& ownGuid) {
    KelContainer content;
    const KelString path = FileStore::StorePath(false, rule.type, rule.label, rule.checksum, rule.name);
    if (const KelStatus loaded = content.LoadFromFile(path); !loaded) {
        FileStore::debugFileStore.Error("PullThread: Cannot read the rule file %S: %S\n", path,
                                        loaded.Error().message);
        return;
    }
    Acknowledgement package;
    package.checksum = content.GetString("FileChecksum");
    package.name = content.GetString("FileName");
    RunUpdate(KelFormat("UPDATE %s SET %s = '%s', %s = 1 WHERE %s = '%Q' AND  %s = '%Q' AND %s != '%s'",
                        kTableFiles, kFileStatus, kStatusNotRelaysChild, kAcknowledged, kFileName,
                        package.name, kFileChecksum, package.checksum, kFileStatus, kStatusAvailable));
    const auto result = FileStore::pDbConnectionDownstream->Query(
        KelFormat("SELECT %s, %s FROM %s WHERE %s = '%Q' AND  %s = '%Q'", kFileType, kFileLabel, kTableFiles,
                  kFileName, package.name, kFileChecksum, package.checksum));
    if (result == nullptr || result->GetRowCount() == 0) return;
    package.type = result->GetString(0, kFileType);
    package.label = result->GetString(0, kFileLabel);
    Call(url, package, ownGuid);
}

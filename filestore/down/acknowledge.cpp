#include "filestore/down/acknowledge.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/pull_thread.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/caller.h"
#include "filestore/state/contact.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/settings.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

using namespace filestore;

// Acknowledgements from both ends: the pull thread of the device that has got a file sends them, the handler
// at the end receives them on the device that announced it.

namespace {

constexpr const char* kAction = "FileStoreAcknowledgeFile";

/// Under which FileStore::failures knows that acknowledging fails.
constexpr const char* kFailureKey = "acknowledge";

void WaitForRetry(std::uint64_t fileId) {
    UpdateFileStatus(Side::Downstream, fileId, kStatusAvailable, kStatusAvailable, NextTry::AfterTimeout);
}

/// A rule file says that this device is no child of its sender for the package that it names. The package is
/// therefore not waited for any longer, and is acknowledged together with the rule file.
void AcknowledgeNamedPackage(const FileStoreEntry& rule, const KelString& callUrl, const KelString& ownUrl) {
    KelContainer content;
    const KelString path = FileStore::StorePath(Side::Downstream, rule.Key());
    if (const KelStatus loaded = content.LoadFromFile(path); !loaded) {
        FileStore::debugFileStore.Error("PullThread: Cannot read the rule file %S: %S\n", path,
                                        loaded.Error().message);
        return;
    }
    const KelString checksum = content.GetString(kValueFileChecksum);
    const KelString name = content.GetString(kValueFileName);
    SetNotRelaysChild(name, checksum);
    // The rule file names neither type nor label.
    const FileRows packages = SelectFilesOfContent(name, checksum);
    if (!packages.empty()) SendAcknowledgement(callUrl, packages.front().Key(), ownUrl);
}

/// An acknowledgement counts for the device that makes it, with what is to be passed on to those below it.
bool IsAcknowledgedByCaller(const KelContainer& arguments, const FileKey& key, const KelString& guid) {
    const auto targets = FindTargets(FindFileInDatabase(Side::Downstream, key));
    KelVector<KelString> names;
    for (const FileStoreTarget& target : targets.value_or(KelVector<FileStoreTarget>()))
        if (StringTokeniser(target.DeviceGUID, '/').GetToken(1) == guid) names.push_back(target.DeviceGUID);
    return IsCallOfOne(arguments, names);
}

void LogFailure(const FileStoreEntry& file, unsigned int error) {
    if (FileStore::failures.Failed(KelDebugLevel::Error, kFailureKey,
                                   KelFormat("PullThread: Failed to call %s, error %u", kAction, error)))
        FileStore::debugFileStore.Warning(
            "PullThread: The sender of %S does not learn that it arrived: %S; tried again every %lu s\n",
            file.Key().Text(), KelErrorText(error), FileStore::ulPullTimeout.load());
}

}  // namespace

namespace filestore {

unsigned int SendAcknowledgement(const KelString& callUrl, const FileKey& key, const KelString& ownUrl) {
    KelContainer call;
    key.Write(call);
    call.SetString(kValueDeviceGuid, ownUrl);
    return CallDevice(callUrl, kAction, call);
}

}  // namespace filestore

int FileStorePullThread::AcknowledgeFile() {
    FileStore::debugFileStore.Trace("PullThread: Looking for downloaded files to acknowledge\n");
    if (!DownloadsAreAllowed()) return 0;
    const KelString ownUrl = OurDeviceUrl();
    if (ownUrl.empty()) {
        FileStore::debugFileStore.Print("PullThread: Do not have a GUID yet so will not send request\n");
        return 0;
    }
    const FileRows rows = SelectAcknowledgement(FileStoreDueBefore(FileStore::ulPullTimeout), PassingNow());
    if (rows.empty()) return 0;
    const FileStoreEntry& file = rows.front();
    FileStore::debugFileStore.Detail("PullThread: Acknowledging %S/%S/%S upstream\n", file.FileType,
                                     file.FileLabel, file.FileName);
    const KelString callUrl = SenderUrl(file.SourceDevice);
    if (callUrl.empty()) {
        WaitForRetry(file.FileId);
        return 0;
    }
    const HttpCharge charge(ChargedFor(file.Bypass));
    if (const unsigned int error = SendAcknowledgement(callUrl, file.Key(), ownUrl); error != kKelOk) {
        LogFailure(file, error);
        WaitForRetry(file.FileId);
        Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Acknowledge,
                       ReasonOfCall(error, PeerName(callUrl)));
        if (file.SourceDevice.empty()) ReportParentError(error);
        return 0;
    }
    FileStore::failures.Succeeded(kFailureKey, "PullThread: The sender takes acknowledgements again");
    // Not "done" while writes fail: the acknowledgement would be resent in a tight loop.
    if (!SetAcknowledged(file.FileId)) return 0;
    Reasons().MovedOn(Side::Downstream, file.FileId);
    FileStore::WakeWorker(Worker::Notify);
    if (file.FileType == kRuleFileType) AcknowledgeNamedPackage(file, callUrl, ownUrl);
    return 1;
}

unsigned int FileStore::ActionHandler_FileStoreAcknowledgeFile(KelContainer* arguments) {
    const KelContainer call = *arguments;
    arguments->Clear();
    const FileKey key = FileKey::Read(call);
    const KelString device = call.GetString(kValueDeviceGuid);
    const KelString guid = StringTokeniser(device, '/').GetToken(1);
    // It becomes part of a pattern: anything else could remove the targets of other devices.
    if (!IsUsableGuid(guid)) {
        debugFileStore.Warning("Refusing an acknowledgement from '%S': it has no usable GUID\n", device);
        return kKelErrorBadInput;
    }
    if (!CheckFileKey(key, false)) return kKelErrorBadInput;
    if (!IsAcknowledgedByCaller(call, key, guid)) {
        debugFileStore.Warning("Refusing an acknowledgement for '%S' from %S, which is another device\n",
                               device, ActionRequestAddress(call));
        return kKelErrorBadInput;
    }
    debugFileStore.Print("Received acknowledge from %S for %S/%S/%S\n", device, key.type, key.label,
                         key.name);

    if (IsCallOf(call, device)) NoteSignOfLife(device);
    const KelLock lock(mutexDownstream);
    const auto fileId = LookUpFile(Side::Downstream, key);
    const bool isRecorded = fileId && (*fileId == 0 || DeleteTargetsOfDevice(*fileId, guid));
    // The device repeats an acknowledgement that failed.
    return isRecorded ? static_cast<unsigned int>(kKelOk) : static_cast<unsigned int>(kKelErrorInternal);
}

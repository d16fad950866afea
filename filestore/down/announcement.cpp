#include "filestore/down/announcement.h"

#include <cstdlib>
#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

KelContainer FromXml(const KelString& xml, const char* column, const FileStoreTarget& target) {
    KelContainer content;
    if (const KelStatus loaded = content.LoadFromXML(xml); !loaded)
        FileStore::debugFileStore.Error("NotifyThread: Column %s of file %lu, target %lu is damaged: %S\n",
                                        column, target.FileId, target.TargetId, loaded.Error().message);
    return content;
}

/// Puts the rule file `made` where it is announced; `made` is gone afterwards. False, logged, on failure.
bool PlaceRuleFile(const KelString& made, const KelString& destination) {
    KelString folder, name;
    SplitPath(destination, folder, name);
    if (PathCreate(folder) && FileRename(made, destination)) return true;
    FileStore::debugFileStore.Error("NotifyThread: Cannot write %S: check space and permissions\n",
                                    destination);
    FileDelete(made);
    return false;
}

/// Saves what the receiver needs to know of `file` in a temporary file. False, logged, on failure.
bool WriteRuleFile(const FileStoreEntry& file, KelString& made) {
    KelContainer rule;
    rule.SetString("FileStatus", kStatusNotRelaysChild);
    rule.SetString(kValueFileChecksum, file.FileChecksum);
    rule.SetString(kValueFileName, file.FileName);
    const KelStatus saved = rule.SaveToTempFile(made);
    if (!saved)
        FileStore::debugFileStore.Error("NotifyThread: Cannot write a rule file: %S\n",
                                        saved.Error().message);
    return static_cast<bool>(saved);
}

}  // namespace

std::int64_t TimeOfAnnounced(std::int64_t now) {
    constexpr std::int64_t kTimeouts = 4;
    return now + kTimeouts * static_cast<std::int64_t>(FileStore::ulTimeout);
}

bool ReplaceByRuleFile(FileTarget& row) {
    FileStoreEntry& file = row.file;
    if (file.FileStatus != kStatusNotRelaysChild) return true;
    KelString made;
    if (!WriteRuleFile(file, made)) return false;
    // Each gets a name of its own: a key is recorded only once on every device.
    file.FileType = kRuleFileType;
    file.FileLabel = kRuleFileType;
    file.FileName = KelFormat("%s_%u_%u", kRuleFileType, static_cast<unsigned int>(std::rand()),
                              static_cast<unsigned int>(std::time(nullptr)));
    // In the store, wherever the package lies.
    file.ExternalFile = false;
    if (!FileMd5(made, file.FileChecksum)) {
        FileDelete(made);
        return false;
    }
    file.FilePath = ContentPath(file, Side::Downstream);
    if (!PlaceRuleFile(made, file.FilePath)) return false;
    file.FileSize = FileGetSize64(file.FilePath);
    return file.FileSize >= 0;
}

FileOffer BuildAnnouncement(const FileTarget& row) {
    const FileStoreEntry& file = row.file;
    FileOffer offer;
    offer.key = file.Key();
    offer.sourceDevice = file.SourceDevice;
    offer.firstRelay = file.FirstRelay;
    offer.devicePath = FromXml(row.target.DevicePath, kValueDevicePath, row.target);
    offer.info = FromXml(file.FileInfo, kValueFileInfo, row.target);
    offer.wakeOnLan = row.target.WakeUpDevice != 0;
    offer.upstream = false;
    // No device keeps a rule file.
    offer.keepCopy = file.FileStatus == kStatusAvailable ? static_cast<std::int32_t>(file.KeepCopy) : 0;
    offer.size = file.FileSize;
    offer.priority = static_cast<std::int32_t>(file.Priority);
    offer.bypass = file.Bypass;
    offer.transportMode = file.TransportMode;
    return offer;
}

KelString AnnouncedUrl(const FileStoreEntry& file) {
    return file.ExternalFile ? file.FileURL : StoredUrl(Side::Downstream, file.Key());
}

// Loopback and link-local addresses and "any" are what a device reports that has no usable one. They are
// looked for in the whole name, whose fourth part is the device's address.
bool IsValidDestination(const KelString& deviceGuid) {
    if (SplitText(deviceGuid, ':').front().empty()) return false;
    for (const char* unusable : {"169.254", "0.0.0.0", "127.0.0.1"})
        if (deviceGuid.find(unusable) != KelString::npos) return false;
    return true;
}

/// Of the failures of targets that are to be woken.
static KelString FailureKey(const KelString& deviceGuid) {
    return "wake " + deviceGuid;
}

void NoteAnswerOf(const KelString& deviceGuid) {
    FileStore::failures.Succeeded(FailureKey(deviceGuid), KelFormat("NotifyThread: %S answers", deviceGuid));
}

bool WakeUpTarget(const FileStoreTarget& target, unsigned int error) {
    if (target.WakeUpDevice != 1) return false;
    if (FileStore::failures.Failed(
            KelDebugLevel::Error, FailureKey(target.DeviceGUID),
            KelFormat("NotifyThread: Failed to call %S, error %u", target.DeviceGUID, error)))
        FileStore::debugFileStore.Warning("NotifyThread: %S does not answer (%S) and is to be woken\n",
                                          target.DeviceGUID, KelErrorText(error));
    if (!ActionDbIsActionRegistered("WakeOnLanWakeUp")) {
        FileStore::debugFileStore.Trace("NotifyThread: Will not use WakeOnLan, not running\n");
        return false;
    }
    const auto device = SplitDevicePathName(target.DeviceGUID);
    if (!device) {
        FileStore::debugFileStore.Trace("NotifyThread: Cannot use WakeOnLan, bad format (%S)\n",
                                        target.DeviceGUID);
        return false;
    }
    KelContainer call;
    call.SetInt32("WakeOnLanNumberOfRetry", 1);
    call.SetInt32("WakeOnLanRetryInterval", 60);
    call.SetString("WakeOnLanDeviceIPAddr", device->ipAddress);
    call.SetString("WakeOnLanDeviceNetworkMask", device->networkMask);
    call.SetString("WakeOnLanDeviceMACAddr", device->macAddress);
    return CallLocal("WakeOnLanWakeUp", call) == kKelOk;
}

}  // namespace filestore

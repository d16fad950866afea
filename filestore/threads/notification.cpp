#include "filestore/threads/notification.h"

#include <cstdlib>
#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

constexpr const char* kRuleFileType = "OperationalRuleAdministratedRelay";

KelContainer FromXml(const KelString& xml, const char* column, const NotificationRow& row) {
    KelContainer content;
    if (const KelStatus loaded = content.LoadFromXML(xml); !loaded)
        FileStore::debugFileStore.Error("NotifyThread: Column %s of file %u, target %u is damaged: %S\n",
                                        column, row.fileId, row.targetId, loaded.Error().message);
    return content;
}

bool IsInRepository(const KelString& path) {
    const KelLock lock(FileStore::mutexSettings);
    const KelString& repository = FileStore::strPackagesRepositoryPath;
    return !repository.empty() && path.starts_with(repository);
}

/// Puts the rule file where it is announced; `made` is gone afterwards.
void PlaceRuleFile(const KelString& made, const NotificationRow& row, const KelString& originalPath) {
    const KelString destination = AnnouncedPath(row);
    if (IsInRepository(originalPath)) {
        FileStore::debugFileStore.Detail(
            "NotifyThread: Case of Package repository: Do not rename the file.\n");
        FileDelete(made);  // nothing would ever refer to it
        return;
    }
    KelString folder, name;
    SplitPath(destination, folder, name);
    if (PathCreate(folder) && FileRename(made, destination)) return;
    FileStore::debugFileStore.Error("NotifyThread: Cannot write %S: check space and permissions\n",
                                    destination);
    FileDelete(made);
}

}  // namespace

NotificationRow ReadNotificationRow(const DBResult& result, std::size_t row) {
    NotificationRow read;
    read.fileId = result.GetUint32(row, kFileId);
    read.targetId = result.GetUint32(row, kTargetId);
    read.path = result.GetString(row, kFilePath);
    read.url = result.GetString(row, kFileUrl);
    read.isExternal = result.GetBool(row, kExternalFile);
    read.type = result.GetString(row, kFileType);
    read.label = result.GetString(row, kFileLabel);
    read.name = result.GetString(row, kFileName);
    read.checksum = result.GetString(row, kFileChecksum);
    read.sourceDevice = result.GetString(row, kSourceDevice);
    read.firstRelay = result.GetString(row, kFirstRelay);
    read.status = result.GetString(row, kFileStatus);
    read.devicePath = result.GetString(row, kDevicePath);
    read.fileInfo = result.GetString(row, kFileInfo);
    read.deviceGuid = result.GetString(row, kDeviceGuid);
    read.wakeUpDevice = result.GetUint32(row, kWakeUpDevice);
    read.keepCopy = static_cast<std::int32_t>(result.GetUint32(row, kKeepCopy));
    read.size = result.GetInt64(row, kFileSize);
    read.priority = static_cast<std::int32_t>(result.GetUint32(row, kPriority));
    read.bypass = result.GetBool(row, kBypass);
    read.transportMode = result.GetString(row, kTransportMode);
    return read;
}

KelString AnnouncedPath(const NotificationRow& row) {
    return row.isExternal ? row.path
                          : FileStore::StorePath(false, row.type, row.label, row.checksum, row.name);
}

KelString AnnouncedUrl(const NotificationRow& row) {
    return row.isExternal ? row.url : FileStore::StoreUrl(false, row.type, row.label, row.checksum, row.name);
}

bool ReplaceByRuleFile(NotificationRow& row) {
    if (row.status != kStatusNotRelaysChild) return true;
    KelContainer rule;
    rule.SetString("FileStatus", kStatusNotRelaysChild);
    rule.SetString("FileChecksum", row.checksum);
    rule.SetString("FileName", row.name);
    KelString made;
    if (const KelStatus saved = rule.SaveToTempFile(made); !saved) {
        FileStore::debugFileStore.Error("NotifyThread: Cannot write a rule file: %S\n",
                                        saved.Error().message);
        return false;
    }
    row.type = kRuleFileType;
    row.label = kRuleFileType;
    row.name = KelFormat("%s_%u_%u", kRuleFileType, static_cast<unsigned int>(std::rand()),
                         static_cast<unsigned int>(std::time(nullptr)));
    FileMd5(made, row.checksum);
    PlaceRuleFile(made, row, row.path);
    row.path = AnnouncedPath(row);
    row.size = FileGetSize64(row.path);
    return true;
}

KelContainer BuildNotification(const NotificationRow& row) {
    const bool isAvailable = row.status == kStatusAvailable;
    KelContainer notification;
    notification.SetString("FileType", row.type);
    notification.SetString("FileLabel", row.label);
    notification.SetString("FileName", row.name);
    notification.SetString("FileChecksum", row.checksum);
    notification.SetString("SourceDevice", row.sourceDevice);
    notification.SetString("FirstRelay", row.firstRelay);
    notification.SetContainer("DevicePath", FromXml(row.devicePath, kDevicePath, row));
    notification.SetContainer("FileInfo", FromXml(row.fileInfo, kFileInfo, row));
    notification.SetBool("WakeOnLan", row.wakeUpDevice != 0);
    notification.SetBool("Upstream", false);
    notification.SetInt32("KeepCopy", isAvailable ? row.keepCopy : 0);
    notification.SetInt64("FileSize", row.size);
    notification.SetInt32("Priority", row.priority);
    notification.SetBool("Bypass", row.bypass);
    notification.SetString("TransportMode", row.transportMode);
    return notification;
}

bool IsValidDestination(const KelString& deviceGuid) {
    if (SplitText(deviceGuid, ':').front().empty()) return false;
    for (const char* unusable : {"169.254", "0.0.0.0", "127.0.0.1"})
        if (deviceGuid.find(unusable) != KelString::npos) return false;
    return true;
}

void WakeUpTarget(const NotificationRow& row, unsigned int error) {
    if (row.wakeUpDevice != 1) return;
    FileStore::debugFileStore.Error("NotifyThread: Failed to call %S, error %u\n", row.deviceGuid, error);
    if (!ActionDbIsActionRegistered("WakeOnLanWakeUp")) {
        FileStore::debugFileStore.Trace("NotifyThread: Will not use WakeOnLan, not running\n");
        return;
    }
    const auto parts = SplitDevicePathName(row.deviceGuid);
    if (!parts) {
        FileStore::debugFileStore.Trace("NotifyThread: Cannot use WakeOnLan, bad format (%S)\n",
                                        row.deviceGuid);
        return;
    }
    KelContainer call;
    call.SetInt32("WakeOnLanNumberOfRetry", 1);
    call.SetInt32("WakeOnLanRetryInterval", 60);
    call.SetString("WakeOnLanDeviceIPAddr", parts->ipAddress);
    call.SetString("WakeOnLanDeviceNetworkMask", parts->networkMask);
    call.SetString("WakeOnLanDeviceMACAddr", parts->macAddress);
    ActionDbInvokeContainer(nullptr, "", "WakeOnLanWakeUp", call, 0, -1, -1, nullptr);
}

}  // namespace filestore

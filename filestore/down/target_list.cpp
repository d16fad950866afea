#include "filestore/down/target_list.h"

#include <algorithm>
#include <ctime>
#include <optional>

#include "filestore/down/announcement.h"
#include "filestore/state/file_store.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

constexpr std::int64_t kAnnouncementGap = 60;  ///< seconds

/// Wake-on-LAN data of a device as they were last announced, in host order.
struct WOLEntryType {
    std::uint32_t ipAddress = 0;
    std::uint32_t networkMask = 0;
    std::uint32_t agentPort = 0;
    bool operator==(const WOLEntryType&) const = default;
};

KelMutex mutexWOL;
KelHash<KelString, WOLEntryType> hashWOL KEL_GUARDED_BY(mutexWOL);  ///< by agent GUID

/// False when the same data have been announced before in this run.
bool Remember(const KelString& guid, const WOLEntryType& entry) {
    const KelLock lock(mutexWOL);
    const auto [known, isNew] = hashWOL.try_emplace(guid, entry);
    if (!isNew && known->second == entry) return false;
    known->second = entry;
    return true;
}

std::optional<WOLEntryType> ReadEntry(const DevicePathName& device) {
    const auto address = IpAddress::Parse(device.ipAddress);
    const auto mask = IpAddress::Parse(device.networkMask);
    const auto port = ParseUint64(device.port);
    if (device.host.empty() || !address || !mask || !port || *port > 65535) return std::nullopt;
    return WOLEntryType{address->Value(), mask->Value(), static_cast<std::uint32_t>(*port)};
}

/// Reports the subnet of a child to the Wake-on-LAN module. A name without such data is left out.
void AnnounceSubnet(const KelString& pathName) {
    if (!ActionDbIsActionRegistered("WakeOnLanAddSubnet")) return;
    const auto device = SplitDevicePathName(pathName);
    const auto entry = device ? ReadEntry(*device) : std::nullopt;
    if (!entry || !Remember(device->guid, *entry)) return;

    KelContainer call;
    call.SetString("WakeOnLanAgentGuid", device->guid);
    call.SetInt32("WakeOnLanDeviceIPAddr", static_cast<std::int32_t>(entry->ipAddress));
    call.SetInt32("WakeOnLanDeviceAgentPort", static_cast<std::int32_t>(entry->agentPort));
    call.SetInt32("WakeOnLanDeviceNetworkMask", static_cast<std::int32_t>(entry->networkMask));
    CallLocal("WakeOnLanAddSubnet", call);
}

/// When a new row counts as last notified: 0, so that it is due at once, unless rows that hold the sub-tree
/// in place of a device name are waiting already; those are announced a minute apart. Rows made here hold the
/// name. Nothing when the query failed.
std::optional<std::int64_t> FirstNotifyTime(const KelString& devicePath, std::int64_t now) {
    const auto latest = LatestNotifyTime(devicePath);
    if (!latest) return std::nullopt;
    if (*latest >= now) return std::min(*latest + kAnnouncementGap, TimeOfAnnounced(now));
    return *latest != 0 ? now : 0;
}

FileStoreTarget FinalTarget(std::uint64_t fileId, unsigned int wakeOnLan) {
    FileStoreTarget target;
    target.TargetId = NewTargetId();
    target.FileId = fileId;
    target.TargetCreateTime = std::time(nullptr);
    target.WakeUpDevice = wakeOnLan;
    return target;
}

std::optional<FileStoreTarget> ChildTarget(std::uint64_t fileId, unsigned int wakeOnLan,
                                           const KelString& child, const KelContainer& subTree) {
    KelContainer wrapped;
    wrapped.SetContainer(child, subTree);
    const bool isOurs = FileStore::CheckDevicePath(wrapped);
    if (!isOurs) AnnounceSubnet(child);
    FileStoreTarget target;
    target.DevicePath = wrapped.SaveToXML();
    target.TargetCreateTime = std::time(nullptr);
    const auto notifyTime = FirstNotifyTime(target.DevicePath, target.TargetCreateTime);
    if (!notifyTime) return std::nullopt;
    target.LastNotifyTime = *notifyTime;
    target.TargetId = NewTargetId();
    target.FileId = fileId;
    if (!isOurs) target.DeviceGUID = child;
    target.WakeUpDevice = wakeOnLan;
    return target;
}

}  // namespace

KelVector<FileStoreTarget> TargetsOf(std::uint64_t fileId, unsigned int wakeOnLan,
                                     const KelContainer& targets) {
    if (targets.IsEmpty() || !FileStore::CheckDevicePath(targets)) return {};
    const KelString& top = targets.GetName(0);
    FileStore::debugFileStore.Detail("Top level target: %S\n", top);
    const KelContainer& children = targets.GetContainer(top);
    if (children.IsEmpty()) {
        FileStore::debugFileStore.Detail("This device is the target for file\n");
        return {FinalTarget(fileId, wakeOnLan)};
    }
    KelVector<FileStoreTarget> rows;
    for (std::size_t i = 0; i < children.GetNameCount(); ++i) {
        const KelString& child = children.GetName(i);
        auto row = ChildTarget(fileId, wakeOnLan, child, children.GetContainer(child));
        if (!row) return {};
        rows.push_back(std::move(*row));
    }
    return rows;
}

}  // namespace filestore

void FileStore::ProcessFileTargetList(unsigned long fileId, unsigned int wakeOnLan, KelContainer& targets) {
    filestore::RecordTargets(filestore::TargetsOf(fileId, wakeOnLan, targets));
}

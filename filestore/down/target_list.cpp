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

/// When a new row counts as last notified: normally 0, so that it is due at once. Rows that hold the sub-tree
/// in place of a device name, which are not made here, are announced a minute apart. Nothing when the query
/// failed.
std::optional<std::int64_t> FirstNotifyTime(const KelString& devicePath, std::int64_t now) {
    const auto latest = LatestNotifyTime(devicePath);
    if (!latest) return std::nullopt;
    if (*latest >= now) return std::min(*latest + kAnnouncementGap, TimeOfAnnounced(now));
    return *latest != 0 ? now : 0;
}

FileStoreTarget FinalTarget(unsigned int wakeOnLan) {
    FileStoreTarget target;
    target.TargetCreateTime = std::time(nullptr);
    target.WakeUpDevice = wakeOnLan;
    return target;
}

std::optional<FileStoreTarget> ChildTarget(unsigned int wakeOnLan, const KelString& child,
                                           const KelContainer& subTree) {
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
    if (!isOurs) target.DeviceGUID = child;
    target.WakeUpDevice = wakeOnLan;
    return target;
}

/// The GUID in a path name or device URL; a name without one stands for itself.
KelString DeviceOf(const KelString& name) {
    const KelString guid = StringTokeniser(name, '/').GetToken(1);
    return guid.empty() ? name : guid;
}

bool IsSameDevice(const KelString& left, const KelString& right) {
    return left == right || DeviceOf(left) == DeviceOf(right);
}

/// Adds a device with what lies below it to one level of a target tree.
void AddDevice(KelContainer& level, const KelString& name, const KelContainer& below) {
    for (std::size_t i = 0; i < level.GetNameCount(); ++i) {
        const KelString known = level.GetName(i);
        if (!IsSameDevice(known, name)) continue;
        KelContainer merged = level.GetContainer(known);
        // A device with nothing below it is a target. One that others lie below only leads on to them, unless
        // it is named once more among them.
        if (merged.IsEmpty() != below.IsEmpty()) AddDevice(merged, known, {});
        for (std::size_t j = 0; j < below.GetNameCount(); ++j)
            AddDevice(merged, below.GetName(j), below.GetContainer(below.GetName(j)));
        level.SetContainer(known, std::move(merged));
        return;
    }
    level.SetContainer(name, below);
}

/// The name on this level of a device; nothing when it is not there.
std::optional<KelString> NameOn(const KelContainer& level, const KelString& device) {
    for (std::size_t i = 0; i < level.GetNameCount(); ++i)
        if (IsSameDevice(level.GetName(i), device)) return level.GetName(i);
    return std::nullopt;
}

/// What is left below `device` (see AddDevice) without the targets in `withdrawn`; nothing when no target is
/// left.
std::optional<KelContainer> Difference(const KelString& device, KelContainer known,
                                       const KelContainer& withdrawn) {
    if (known.IsEmpty()) {  // the device itself, and nothing else, is a target
        if (withdrawn.IsEmpty() || NameOn(withdrawn, device)) return std::nullopt;
        return known;
    }
    KelContainer itself;
    itself.SetContainer(device, {});
    const KelContainer& names = withdrawn.IsEmpty() ? itself : withdrawn;
    for (std::size_t i = 0; i < names.GetNameCount(); ++i) {
        const auto name = NameOn(known, names.GetName(i));
        if (!name) continue;
        const bool isItself = IsSameDevice(*name, device);
        auto rest = isItself
                        ? std::nullopt
                        : Difference(*name, known.GetContainer(*name), names.GetContainer(names.GetName(i)));
        if (rest)
            known.SetContainer(*name, std::move(*rest));
        else
            known.Remove(*name);
    }
    if (known.IsEmpty()) return std::nullopt;
    return known;
}

KelContainer ReadTree(const FileStoreTarget& target) {
    KelContainer tree;
    if (const KelStatus loaded = tree.LoadFromXML(target.DevicePath); !loaded && !target.DevicePath.empty())
        FileStore::debugFileStore.Error("The device path of target %lu is damaged and is replaced: %S\n",
                                        target.TargetId, loaded.Error().message);
    return tree;
}

/// The row `known` with what `announced` says of the same device. A row that a request has made has no tree.
FileStoreTarget Union(const FileStoreTarget& known, const FileStoreTarget& announced) {
    FileStoreTarget merged = known;
    merged.DeviceGUID = announced.DeviceGUID;  // with the address that the device has now
    merged.WakeUpDevice = std::max(known.WakeUpDevice, announced.WakeUpDevice);
    KelContainer tree = ReadTree(known);
    const KelContainer added = ReadTree(announced);
    if (tree.IsEmpty()) {
        merged.DevicePath = announced.DevicePath;
    } else if (!added.IsEmpty()) {
        AddDevice(tree, added.GetName(0), added.GetContainer(added.GetName(0)));
        merged.DevicePath = tree.SaveToXML();
    }
    return merged;
}

}  // namespace

std::optional<KelVector<FileStoreTarget>> TargetsOf(unsigned int wakeOnLan, const KelContainer& targets) {
    KelVector<FileStoreTarget> rows;
    if (targets.IsEmpty() || !FileStore::CheckDevicePath(targets)) return rows;
    const KelString& top = targets.GetName(0);
    FileStore::debugFileStore.Detail("Top level target: %S\n", top);
    const KelContainer& children = targets.GetContainer(top);
    if (children.IsEmpty()) {
        FileStore::debugFileStore.Detail("This device is the target for file\n");
        rows.push_back(FinalTarget(wakeOnLan));
        return rows;
    }
    for (std::size_t i = 0; i < children.GetNameCount(); ++i) {
        const KelString& child = children.GetName(i);
        auto row = ChildTarget(wakeOnLan, child, children.GetContainer(child));
        if (!row) return std::nullopt;
        rows.push_back(std::move(*row));
    }
    return rows;
}

KelVector<SubTree> SubTreesOf(const KelContainer& targets) {
    KelVector<SubTree> parts;
    const KelContainer& children = targets.GetContainer(targets.GetName(0));
    if (children.IsEmpty()) return {SubTree()};
    for (std::size_t i = 0; i < children.GetNameCount(); ++i) {
        const KelString& child = children.GetName(i);
        KelContainer wrapped;
        wrapped.SetContainer(child, {});
        const bool isOurs = FileStore::CheckDevicePath(wrapped);
        parts.push_back({isOurs ? KelString() : child, children.GetContainer(child)});
    }
    return parts;
}

std::optional<FileStoreTarget> WithoutTargets(const FileStoreTarget& target,
                                              const KelVector<SubTree>& withdrawn, bool keepRequests) {
    const auto part = std::find_if(withdrawn.begin(), withdrawn.end(), [&target](const SubTree& other) {
        return IsSameDevice(other.device, target.DeviceGUID);
    });
    if (part == withdrawn.end()) return target;
    const KelContainer tree = ReadTree(target);
    if (tree.IsEmpty()) {
        if (part->below.IsEmpty() || !keepRequests) return std::nullopt;
        return target;
    }
    const KelString& device = tree.GetName(0);
    auto rest = Difference(device, tree.GetContainer(device), part->below);
    if (!rest) return std::nullopt;
    FileStoreTarget left = target;
    KelContainer wrapped;
    wrapped.SetContainer(device, std::move(*rest));
    left.DevicePath = wrapped.SaveToXML();
    return left;
}

KelVector<FileStoreTarget> MergeTargets(const KelVector<FileStoreTarget>& known,
                                        const KelVector<FileStoreTarget>& announced) {
    KelVector<FileStoreTarget> changed;
    for (const FileStoreTarget& target : announced) {
        const auto row = std::find_if(known.begin(), known.end(), [&target](const FileStoreTarget& other) {
            return IsSameDevice(other.DeviceGUID, target.DeviceGUID);
        });
        FileStoreTarget merged = row == known.end() ? target : Union(*row, target);
        merged.LastNotifyTime = 0;
        if (row == known.end() || merged != *row) changed.push_back(std::move(merged));
    }
    return changed;
}

}  // namespace filestore

void FileStore::ProcessFileTargetList(unsigned long fileId, unsigned int wakeOnLan, KelContainer& targets) {
    if (const auto rows = filestore::TargetsOf(wakeOnLan, targets)) filestore::RecordTargets(fileId, *rows);
}

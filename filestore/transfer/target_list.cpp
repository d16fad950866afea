#include "filestore/transfer/target_list.h"

#include <ctime>

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

/// Wake-on-LAN data of a device as it was last announced, in host order.
struct WOLEntryType {
    std::uint32_t ipAddress = 0;
    std::uint32_t networkMask = 0;
    std::uint32_t agentPort = 0;
    bool operator==(const WOLEntryType&) const = default;
};

KelMutex mutexWOL;
KelHash<KelString, WOLEntryType> hashWOL;  ///< by agent GUID; guarded by mutexWOL

/// False when the same data were announced before in this run.
bool Remember(const KelString& guid, const WOLEntryType& entry) {
    const KelLock lock(mutexWOL);
    const auto [known, isNew] = hashWOL.try_emplace(guid, entry);
    if (!isNew && known->second == entry) return false;
    known->second = entry;
    return true;
}

void AnnounceSubnet(const KelString& pathName) {
    if (!ActionDbIsActionRegistered("WakeOnLanAddSubnet")) return;
    const auto parts = SplitDevicePathName(pathName);
    if (!parts || parts->host.empty()) return;
    const auto address = IpAddress::Parse(parts->ipAddress);
    const auto mask = IpAddress::Parse(parts->networkMask);
    const auto port = ParseUint64(parts->port);
    if (!address || !mask || !port || *port > 65535) return;
    const WOLEntryType entry = {address->Value(), mask->Value(), static_cast<std::uint32_t>(*port)};
    if (!Remember(parts->guid, entry)) return;

    KelContainer call;
    call.SetString("WakeOnLanAgentGuid", parts->guid);
    call.SetInt32("WakeOnLanDeviceIPAddr", static_cast<std::int32_t>(entry.ipAddress));
    call.SetInt32("WakeOnLanDeviceAgentPort", static_cast<std::int32_t>(entry.agentPort));
    call.SetInt32("WakeOnLanDeviceNetworkMask", static_cast<std::int32_t>(entry.networkMask));
    ActionDbInvokeContainer(nullptr, "", "WakeOnLanAddSubnet", call, 0, -1, -1, nullptr);
}

/// When a new row counts as last notified: at once (0), unless rows that hold the sub-tree in place of a
/// device name wait already; they are announced a minute apart. Rows made here hold the name. False when the
/// query failed.
bool FirstNotifyTime(const KelString& devicePath, std::int64_t now, std::int64_t& time) {
    const auto result = FileStore::pDbConnectionDownstream->Query(
        KelFormat("SELECT MAX(%s) AS %s FROM %s WHERE %s='%S'", kLastNotifyTime, kLastNotifyTime,
                  kTableTargets, kDeviceGuid, devicePath));
    if (result == nullptr) return false;
    const std::int64_t latest = result->GetInt64(0, kLastNotifyTime);
    time = latest >= now ? latest + 60 : latest != 0 ? now : 0;
    return true;
}

KelString FinalTargetStatement(unsigned long fileId, unsigned int wakeOnLan) {
    return KelFormat("INSERT INTO %s (%s, %s, %s, %s, %s, %s, %s) VALUES (%lu, %lu, '', '', %ld, 0, %u)",
                     kTableTargets, kTargetId, kFileId, kDeviceGuid, kDevicePath, kTargetCreateTime,
                     kLastNotifyTime, kWakeUpDevice,
                     FileStore::dbSequenceManagerDownstream.GetId(kTableTargets, kTargetId), fileId,
                     static_cast<std::int64_t>(std::time(nullptr)), wakeOnLan);
}

/// Empty when the statement cannot be made.
KelString ChildStatement(unsigned long fileId, unsigned int wakeOnLan, const KelString& child,
                         const KelContainer& subTree) {
    KelContainer wrapped;
    wrapped.SetContainer(child, subTree);
    const bool isOurs = FileStore::CheckDevicePath(wrapped);
    if (!isOurs) AnnounceSubnet(child);
    const KelString devicePath = wrapped.SaveToXML();
    const std::int64_t now = std::time(nullptr);
    std::int64_t lastNotifyTime = 0;
    if (!FirstNotifyTime(devicePath, now, lastNotifyTime)) return {};
    return KelFormat(
        "INSERT INTO %s (%s, %s, %s, %s, %s, %s, %s) VALUES (%lu, %lu, '%Q', '%S', %ld, %ld, %u)",
        kTableTargets, kTargetId, kFileId, kDeviceGuid, kDevicePath, kTargetCreateTime, kLastNotifyTime,
        kWakeUpDevice, FileStore::dbSequenceManagerDownstream.GetId(kTableTargets, kTargetId), fileId,
        isOurs ? KelString() : child, devicePath, now, lastNotifyTime, wakeOnLan);
}

}  // namespace

KelVector<KelString> TargetStatements(unsigned long fileId, unsigned int wakeOnLan,
                                      const KelContainer& targets) {
    if (targets.IsEmpty() || !FileStore::CheckDevicePath(targets)) return {};
    const KelString& top = targets.GetName(0);
    FileStore::debugFileStore.Detail("Top level target: %S\n", top);
    const KelContainer& children = targets.GetContainer(top);
    if (children.IsEmpty()) {
        FileStore::debugFileStore.Detail("This device is the target for file\n");
        return {FinalTargetStatement(fileId, wakeOnLan)};
    }
    KelVector<KelString> statements;
    for (std::size_t i = 0; i < children.GetNameCount(); ++i) {
        const KelString& child = children.GetName(i);
        statements.push_back(ChildStatement(fileId, wakeOnLan, child, children.GetContainer(child)));
        if (statements.back().empty()) return {};
    }
    return statements;
}

}  // namespace filestore

void FileStore::ProcessFileTargetList(unsigned long fileId, unsigned int wakeOnLan, KelContainer& targets) {
    const KelVector<KelString> statements = filestore::TargetStatements(fileId, wakeOnLan, targets);
    if (statements.empty()) return;
    const KelLock lock(mutexDownstream);
    DBTransaction transaction(*pDbConnectionDownstream);
    for (const KelString& statement : statements)
        pDbConnectionDownstream->Query(statement);
    transaction.Commit();
}

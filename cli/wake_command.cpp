#include <cstdio>
#include <map>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

// A device that is off takes a moment until its network card is listening, and a packet can be lost.
constexpr std::int32_t kRepeats = 2;
constexpr std::int32_t kRepeatSeconds = 10;
constexpr std::size_t kMostLevels = 64;

/// For the devices on the way, each of which has a few seconds to answer.
constexpr int kSeconds = 70;

KelError NotFound(const KelString& message) {
    return {kKelErrorBadInput, message};
}

KelResult<KelContainer> FindDevice(const KelContainer& devices, const KelString& guidOrName) {
    KelContainer found;
    for (std::uint32_t i = 0; i < ItemCount(devices); ++i) {
        const KelContainer& device = devices.GetContainer("Values", i);
        if (IsEqualTo(device.GetString("GUID"), guidOrName, false)) return device;
        if (!IsEqualTo(device.GetString("Name"), guidOrName, false)) continue;
        if (!found.IsEmpty())
            return NotFound("several devices are named '" + guidOrName + "'; give the GUID instead");
        found = device;
    }
    if (found.IsEmpty()) return NotFound("there is no device '" + guidOrName + "'; 'kel devices' lists them");
    return found;
}

/// Adds the devices between the master and `device` to `call`, from the top down.
KelStatus AddWay(const KelContainer& devices, const KelContainer& device, KelContainer& call) {
    std::map<KelString, const KelContainer*> known;
    for (std::uint32_t i = 1; i < ItemCount(devices); ++i) {  // without the master
        const KelContainer& one = devices.GetContainer("Values", i);
        known.emplace(one.GetString("GUID"), &one);
    }
    const KelString master = devices.GetContainer("Values").GetString("GUID");
    KelVector<KelString> way;
    for (KelString parent = device.GetString("Parent"); parent != master;) {
        const auto above = known.find(parent);
        if (above == known.end() || way.size() >= kMostLevels)
            return NotFound("no way leads from the master to '" + device.GetString("Name") + "'");
        way.push_back(above->second->GetString("Address"));
        parent = above->second->GetString("Parent");
    }
    for (std::uint32_t i = 0; i < way.size(); ++i)
        call.SetString("WakeOnLanWay", way[way.size() - 1 - i], i);
    return {};
}

}  // namespace

KelResult<KelContainer> WakeUpArguments(const KelContainer& devices, const KelString& guidOrName) {
    const auto device = FindDevice(devices, guidOrName);
    if (!device) return device.Error();
    if (device->GetString("Parent").empty()) return NotFound("'" + guidOrName + "' is the master itself");
    const auto path = SplitDevicePathName(device->GetString("PathName"));
    if (!path) return NotFound("the address of the network card of '" + guidOrName + "' is not known");
    KelContainer call;
    call.SetString("WakeOnLanDeviceMACAddr", path->macAddress);
    call.SetString("WakeOnLanDeviceIPAddr", path->ipAddress);
    call.SetString("WakeOnLanDeviceNetworkMask", path->networkMask);
    call.SetInt32("WakeOnLanNumberOfRetry", kRepeats);
    call.SetInt32("WakeOnLanRetryInterval", kRepeatSeconds);
    if (const KelStatus added = AddWay(devices, *device, call); !added) return added.Error();
    return call;
}

int RunCommand(const CommonOptions& common, const WakeOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer devices;
    if (const unsigned int result = remote->Call("ConsoleListDevices", devices); result != kKelOk)
        return ExitCodeOf(result);
    auto call = WakeUpArguments(devices, options.device);
    if (!call) return Complain(call.Error());
    KelContainer item;
    item.SetString("Name", options.device);
    item.SetString("MACAddress", call->GetString("WakeOnLanDeviceMACAddr"));
    if (const unsigned int result = remote->Call("WakeOnLanWakeUp", *call, kSeconds); result != kKelOk)
        return ExitCodeOf(result);
    for (const char* name : {"WakeOnLanSenderIPAddr", "WakeOnLanBroadcastIPAddr"})
        item.SetString(name, call->GetString(name));
    KelContainer list;
    list.SetContainer("Values", std::move(item));
    PrintList(list, common.json,
              {TextColumn("DEVICE", "Name"), ValueColumn("NETWORK CARD", "MACAddress"),
               ValueColumn("WOKEN BY", "WakeOnLanSenderIPAddr"),
               ValueColumn("BROADCAST", "WakeOnLanBroadcastIPAddr")});
    return kExitDone;
}

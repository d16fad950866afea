#include "modules/identity/device_values.h"

#include "kel/format.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/net/socket.h"

namespace {

constexpr char kSection[] = "Identity";
constexpr std::uint32_t kDefaultMask = 0xFFFFFF00;  // 255.255.255.0

KelString Entry(const IniFile& ini, const char* key) {
    KelString value;
    ini.GetEntryValue(kSection, key, value, KelString());
    return value;
}

KelError Unusable(const char* key, const KelString& value, const char* expected) {
    return KelError{
        kKelErrorBadInput,
        KelFormat("Identity.ini: %s = %S is no %s; correct it or leave it empty", key, value, expected)};
}

/// Names and addresses become parts of device path names, which reach SQL statements and URLs unescaped.
KelString FullHostName() {
    const KelString domain = GetLocalDomainName();
    const KelString host = GetLocalHostName();
    return domain.empty() ? host : host + "." + domain;
}

KelStatus CheckEntries(const DeviceValues& values) {
    if (!values.hostName.empty() && !IsHostName(values.hostName)) {
        return Unusable("HostName", values.hostName, "host name");
    }
    if (!values.ipAddress.empty() && !IpAddress::Parse(values.ipAddress)) {
        return Unusable("IPAddress", values.ipAddress, "IPv4 address");
    }
    if (!values.macAddress.empty() && !IsMacAddress(values.macAddress)) {
        return Unusable("MACAddress", values.macAddress, "MAC address like 02-00-7F-00-01-01");
    }
    if (!values.networkMask.empty() && !IpAddress::Parse(values.networkMask)) {
        return Unusable("NetworkMask", values.networkMask, "IPv4 network mask");
    }
    return {};
}

void CompleteFromInterfaces(DeviceValues& values, const KelVector<NetworkInterface>& interfaces) {
    if (values.ipAddress.empty()) {
        const auto reachable = FirstReachableInterface(interfaces);
        if (!reachable) return;
        values.ipAddress = reachable->address.ToText();
    }
    const auto address = IpAddress::Parse(values.ipAddress);
    if (!address) return;
    const auto carrier = FindInterface(interfaces, *address);
    if (values.macAddress.empty()) {
        const bool hasMac = carrier && !carrier->macAddress.empty();
        values.macAddress = hasMac ? carrier->macAddress : MacAddressFor(*address);
    }
    if (values.networkMask.empty())
        values.networkMask = (carrier ? carrier->mask : IpAddress(kDefaultMask)).ToText();
}

}  // namespace

KelResult<DeviceValues> DetermineDeviceValues(const IniFile& ini, const KelString& agentAddress,
                                              const KelVector<NetworkInterface>& interfaces) {
    DeviceValues values;
    values.hostName = Entry(ini, "HostName");
    values.ipAddress = Entry(ini, "IPAddress");
    values.macAddress = Entry(ini, "MACAddress");
    values.networkMask = Entry(ini, "NetworkMask");
    ini.GetEntryValue(kSection, "PreferIPAddresses", values.preferIpAddresses, false);
    if (const KelStatus checked = CheckEntries(values); !checked) return checked.Error();
    if (values.hostName.empty()) values.hostName = FullHostName();
    if (values.ipAddress.empty()) values.ipAddress = agentAddress;
    CompleteFromInterfaces(values, interfaces);
    return values;
}

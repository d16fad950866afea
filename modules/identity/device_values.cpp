#include "modules/identity/device_values.h"

#include <array>

#include "kel/format.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/net/socket.h"

namespace {

constexpr char kSection[] = "Identity";
constexpr std::uint32_t kDefaultMask = 0xFFFFFF00;  // 255.255.255.0

bool IsIpAddress(const KelString& text) {
    return text.empty() || IpAddress::Parse(text);
}

bool IsEmptyOrHostName(const KelString& text) {
    return text.empty() || IsHostName(text);
}

bool IsEmptyOrMacAddress(const KelString& text) {
    return text.empty() || IsMacAddress(text);
}

// Names and addresses become parts of device path names, which reach SQL statements and URLs unescaped. They
// are vital: a device that reported other ones would be looked for in another place.
IniSetting Vital(const char* key, bool (*check)(const KelString&), const char* expected) {
    return IniSetting::Text(kSection, key).Checked(check, expected).Vital();
}

const IniSetting kHostName = Vital("HostName", IsEmptyOrHostName, "a host name");
const IniSetting kIpAddress = Vital("IPAddress", IsIpAddress, "an IPv4 address");
const IniSetting kMacAddress =
    Vital("MACAddress", IsEmptyOrMacAddress, "a MAC address like 02-00-7F-00-01-01");
const IniSetting kNetworkMask = Vital("NetworkMask", IsIpAddress, "an IPv4 network mask");
const IniSetting kPreferIpAddresses = IniSetting::Flag(kSection, "PreferIPAddresses", false);
const IniSetting kCheckInterval = IniSetting::Number(kSection, "CheckInterval", 30).Between(1, 86400);

KelString FullHostName() {
    const KelString domain = GetLocalDomainName();
    const KelString host = GetLocalHostName();
    return domain.empty() ? host : host + "." + domain;
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

std::span<const IniSetting> IdentityIniSettings() {
    static const std::array settings = {kHostName,    kIpAddress,         kMacAddress,
                                        kNetworkMask, kPreferIpAddresses, kCheckInterval};
    return settings;
}

std::uint32_t ReadCheckInterval(const IniFile& ini) {
    return static_cast<std::uint32_t>(ReadIniNumber(ini, kCheckInterval));
}

KelResult<DeviceValues> DetermineDeviceValues(const IniFile& ini, const KelString& agentAddress,
                                              const KelVector<NetworkInterface>& interfaces) {
    for (const IniFault& fault : FindIniFaults(ini, IdentityIniSettings()))
        if (fault.weight == IniFault::Weight::Vital)
            return KelError{kKelErrorBadInput, "Identity.ini: " + fault.text};
    DeviceValues values;
    values.hostName = ReadIniText(ini, kHostName);
    values.ipAddress = ReadIniText(ini, kIpAddress);
    values.macAddress = ReadIniText(ini, kMacAddress);
    values.networkMask = ReadIniText(ini, kNetworkMask);
    values.preferIpAddresses = ReadIniFlag(ini, kPreferIpAddresses);
    if (values.hostName.empty()) values.hostName = FullHostName();
    if (values.ipAddress.empty()) values.ipAddress = agentAddress;
    CompleteFromInterfaces(values, interfaces);
    return values;
}

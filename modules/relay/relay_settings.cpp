#include "modules/relay/relay_settings.h"

#include <array>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr char kSection[] = "Relay";
constexpr int kMaxInterval = 86400;

bool IsEmptyOrHostName(const KelString& text) {
    return text.empty() || IsHostName(text);
}

const IniSetting kRole =
    IniSetting::Text(kSection, "Role", "client").OneOf({"master", "relay", "client"}).Vital();
const IniSetting kParentName = IniSetting::Text(kSection, "ParentName")
                                   .Checked(IsEmptyOrHostName, "a host name or an IPv4 address")
                                   .Vital();
const IniSetting kParentPort = IniSetting::Number(kSection, "ParentPort", 0).Between(0, 65535).Vital();
const IniSetting kCheckInterval = IniSetting::Number(kSection, "CheckInterval", 30).Between(1, kMaxInterval);
const IniSetting kRetryInterval = IniSetting::Number(kSection, "RetryInterval", 5).Between(1, kMaxInterval);

RelayRole ParseRole(const KelString& text) {
    for (const RelayRole role : {RelayRole::Master, RelayRole::Relay})
        if (IsEqualTo(text, RelayRoleName(role), false)) return role;
    return RelayRole::Client;
}

}  // namespace

const char* RelayRoleName(RelayRole role) {
    switch (role) {
        case RelayRole::Master:
            return "master";
        case RelayRole::Relay:
            return "relay";
        case RelayRole::Client:
            break;
    }
    return "client";
}

std::span<const IniSetting> RelayIniSettings() {
    static const std::array settings = {kRole, kParentName, kParentPort, kCheckInterval, kRetryInterval};
    return settings;
}

KelString ParentPlace::Text() const {
    return IsNone() ? KelString() : KelFormat("%S:%u", name, unsigned{port});
}

KelStatus WriteParent(const KelString& path, const ParentPlace& parent) {
    IniFile ini;
    if (!ini.Open(path))
        return KelError{kKelErrorInternal, KelFormat("%S cannot be read or is malformed; correct it", path)};
    return ini.WriteEntryValues(
        kSection, {{kParentName.key, parent.name}, {kParentPort.key, std::to_string(parent.port)}});
}

RelaySettings ReadRelaySettings(const IniFile& ini) {
    const auto seconds = [&ini](const IniSetting& setting) {
        return static_cast<std::uint32_t>(ReadIniNumber(ini, setting));
    };
    RelaySettings settings;
    settings.role = ParseRole(ReadIniText(ini, kRole));
    settings.parent.name = ReadIniText(ini, kParentName);
    if (!settings.parent.IsNone())
        settings.parent.port = static_cast<std::uint16_t>(ReadIniNumber(ini, kParentPort));
    settings.checkInterval = seconds(kCheckInterval);
    settings.retryInterval = seconds(kRetryInterval);
    return settings;
}

void CheckRelayIni(const IniFile& ini, KelVector<IniFault>& faults) {
    const RelaySettings settings = ReadRelaySettings(ini);
    const auto refuse = [&faults](KelString text) {
        faults.push_back({IniFault::Weight::Vital, std::move(text)});
    };
    if (settings.role == RelayRole::Master && !settings.parent.IsNone())
        refuse(KelFormat(
            "a master has no parent, but ParentName is %S; remove it or set Role to relay or client",
            settings.parent.name));
    if (!settings.parent.IsNone() && settings.parent.port == 0)
        refuse("ParentPort must be the port of the parent, 1 to 65535");
}

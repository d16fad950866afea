#include "modules/relay/relay_settings.h"

#include <algorithm>
#include <optional>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr char kSection[] = "Relay";
constexpr int kMaxInterval = 86400;

std::optional<RelayRole> ParseRole(const KelString& text) {
    for (const RelayRole role : {RelayRole::Master, RelayRole::Relay, RelayRole::Client}) {
        if (IsEqualTo(text, RelayRoleName(role), false)) return role;
    }
    return std::nullopt;
}

std::uint32_t Seconds(const IniFile& ini, const char* key, int fallback) {
    int value = 0;
    ini.GetEntryValue(kSection, key, value, fallback);
    return static_cast<std::uint32_t>(std::clamp(value, 1, kMaxInterval));
}

KelStatus ReadParent(const IniFile& ini, RelaySettings& settings) {
    KelString name;
    ini.GetEntryValue(kSection, "ParentName", name, KelString());
    if (name.empty()) return {};
    if (settings.role == RelayRole::Master) {
        return KelError{kKelErrorBadInput,
                        KelFormat("Relay.ini: a master has no parent, but ParentName is %S; remove it or "
                                  "set Role to relay or client",
                                  name)};
    }
    if (!IsHostName(name)) {
        return KelError{kKelErrorBadInput,
                        KelFormat("Relay.ini: ParentName = %S is no host name or IPv4 address", name)};
    }
    int port = 0;
    ini.GetEntryValue(kSection, "ParentPort", port, 0);
    if (port < 1 || port > 65535) {
        return KelError{
            kKelErrorBadInput,
            KelFormat("Relay.ini: ParentPort must be the parent's port, 1 to 65535, not %d", port)};
    }
    settings.parentName = name;
    settings.parentPort = static_cast<std::uint16_t>(port);
    return {};
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

KelResult<RelaySettings> ReadRelaySettings(const IniFile& ini) {
    RelaySettings settings;
    KelString role;
    ini.GetEntryValue(kSection, "Role", role, RelayRoleName(RelayRole::Client));
    const auto parsed = ParseRole(role);
    if (!parsed) {
        return KelError{kKelErrorBadInput,
                        KelFormat("Relay.ini: Role = %S is none of master, relay, client", role)};
    }
    settings.role = *parsed;
    if (const KelStatus parent = ReadParent(ini, settings); !parent) return parent.Error();
    settings.checkInterval = Seconds(ini, "CheckInterval", 30);
    settings.retryInterval = Seconds(ini, "RetryInterval", 5);
    return settings;
}

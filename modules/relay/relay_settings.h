#pragma once

#include <cstdint>
#include <span>

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"

enum class RelayRole : unsigned char { Master, Relay, Client };

/// "master", "relay" or "client".
const char* RelayRoleName(RelayRole role);

/// Where a parent is.
struct ParentPlace {
    KelString name;          ///< host name or IPv4 address; empty: there is no parent
    std::uint16_t port = 0;  ///< 0 exactly when there is none

    bool IsNone() const { return name.empty(); }
    /// "name:port"; empty without a parent.
    KelString Text() const;
    bool operator==(const ParentPlace&) const = default;
};

/// The place of this device in the tree.
struct RelaySettings {
    /// Milliseconds that a second of the intervals takes. Tests shorten it before a module starts.
    static inline std::uint64_t msPerSecond = 1000;

    RelayRole role = RelayRole::Client;
    ParentPlace parent;                ///< none on the master
    std::uint32_t checkInterval = 30;  ///< seconds between two calls while the parent answers
    std::uint32_t retryInterval = 5;   ///< seconds between two calls while it does not
};

/// The entries of Relay.ini.
std::span<const IniSetting> RelayIniSettings();

/// The section Relay of `ini`, which has no vital fault.
RelaySettings ReadRelaySettings(const IniFile& ini);

/// Changes the parent in the ini file at `path`, in one write.
KelStatus WriteParent(const KelString& path, const ParentPlace& parent);

/// Appends what is wrong with the parent, given the role.
void CheckRelayIni(const IniFile& ini, KelVector<IniFault>& faults);

#pragma once

#include <cstdint>

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"

enum class RelayRole : unsigned char { Master, Relay, Client };

/// "master", "relay" or "client".
const char* RelayRoleName(RelayRole role);

/// The place of this device in the tree.
struct RelaySettings {
    /// Milliseconds that a second of the intervals takes. Tests shorten it before a module starts.
    static inline std::uint64_t msPerSecond = 1000;

    RelayRole role = RelayRole::Client;
    KelString parentName;              ///< host name or IPv4 address; empty: no parent, always on the master
    std::uint16_t parentPort = 0;      ///< 0 exactly when there is no parent
    std::uint32_t checkInterval = 30;  ///< seconds between two calls while the parent answers
    std::uint32_t retryInterval = 5;   ///< seconds between two calls while it does not
};

/// The section Relay of `ini`. An unusable value is an error that names it; a time out of range is clamped
/// (1 second to 1 day).
KelResult<RelaySettings> ReadRelaySettings(const IniFile& ini);

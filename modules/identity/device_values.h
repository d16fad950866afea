#pragma once

#include <cstdint>
#include <span>

#include "kel/ini_file.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"
#include "kelcore/net/network_interface.h"

/// How this device describes itself to others, except for its GUID.
struct DeviceValues {
    KelString hostName;
    KelString ipAddress;    ///< empty while no interface has an address
    KelString macAddress;   ///< "02-00-7F-00-01-01"
    KelString networkMask;  ///< dotted
    bool preferIpAddresses = false;

    bool operator==(const DeviceValues&) const = default;
};

/// The entries of the ini file.
std::span<const IniSetting> IdentityIniSettings();

/// Seconds between two checks of the values.
std::uint32_t ReadCheckInterval(const IniFile& ini);

/// The values of the section Identity of `ini`; empty ones are taken from the system: the IP address from
/// `agentAddress` (may be empty), else from the first interface that other devices can reach; MAC address and
/// mask from the interface that has the address. An unusable value in the file is an error that names it.
KelResult<DeviceValues> DetermineDeviceValues(const IniFile& ini, const KelString& agentAddress,
                                              const KelVector<NetworkInterface>& interfaces);

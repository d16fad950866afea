#pragma once

#include <chrono>

#include "kel/container.h"
#include "kel/result.h"
#include "modules/wake_on_lan/magic_packet.h"
#include "modules/wake_on_lan/subnet.h"

/// The arguments of WakeOnLanWakeUp.
struct WakeUpRequest {
    MacAddress card{};
    IpAddress host;
    Subnet subnet;  ///< of the host
    unsigned int repeats = 0;
    std::chrono::seconds interval{60};
    KelVector<KelString> way;  ///< "host:port" of the devices that are to pass it on, the next one first
    bool onlyOwnSubnet =
        false;  ///< asked by a device that found no way of its own: no further device is asked

    /// For the first device of `way`, or for an agent in the host's subnet.
    KelContainer ForNext() const;
};

/// Checks everything that is sent or used as an address. An error names the value.
KelResult<WakeUpRequest> ReadWakeUpRequest(const KelContainer& arguments);

/// The arguments of WakeOnLanAddSubnet, which `subnet` and `agent` are taken from.
KelStatus ReadSubnetAgent(const KelContainer& arguments, Subnet& subnet, SubnetAgent& agent);

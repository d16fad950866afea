#pragma once

#include <optional>

#include "kel/ip_address.h"
#include "kel/types.h"

/// An IPv4 address of a network interface of this device.
struct NetworkInterface {
    KelString name;
    IpAddress address;
    IpAddress mask;
    KelString macAddress;  ///< "02-00-7F-00-01-01"; empty when the interface has none
    bool isLoopback = false;
};

/// The addresses of all interfaces that are up, in the system's order; empty when they cannot be read.
KelVector<NetworkInterface> ListNetworkInterfaces();

/// The interface for `address`: the one that has it, else the one whose network contains it.
std::optional<NetworkInterface> FindInterface(const KelVector<NetworkInterface>& interfaces,
                                              IpAddress address);

/// The first interface that other devices can reach: no loopback, no link-local address.
std::optional<NetworkInterface> FirstReachableInterface(const KelVector<NetworkInterface>& interfaces);

/// A locally administered MAC address derived from an IPv4 address, for an interface that has none.
KelString MacAddressFor(IpAddress address);

#pragma once

#include <optional>
#include <string_view>

#include "kel/types.h"

// The names of devices and their parts. A device URL is "host:port/GUID"; a path name, as target lists hold
// it, is "host:port/GUID/MAC/IP/mask". All functions may be called from any thread.

/// True for "8-4-4-4-12" upper-case hexadecimal digits.
bool IsGuid(std::string_view text);

/// A new random GUID.
KelString MakeGuid();

/// True for 1 to 253 letters, digits, ".", "_" and "-": a host name or an IPv4 address that can stand in a
/// path name, a statement and a URL as it is.
bool IsHostName(std::string_view text);

/// True for six pairs of upper-case hexadecimal digits, separated by "-".
bool IsMacAddress(std::string_view text);

/// True for "host:port" with a host as for IsHostName and a port of 1 to 5 digits.
bool IsHostAndPort(std::string_view text);

/// True for "host:port/GUID".
bool IsDeviceUrl(std::string_view text);

/// The GUID of a device named by "GUID" or "ANYTHING/GUID", where ANYTHING is UTF-8 without "/"; empty when
/// `text` is neither.
std::string_view GuidOfDevice(std::string_view text);

/// The parts of a path name, as texts.
struct DevicePathName {
    KelString address;  ///< "host:port"
    KelString host;
    KelString port;
    KelString guid;
    KelString macAddress;
    KelString ipAddress;
    KelString networkMask;
};

/// Takes a path name apart whatever its parts hold, as long as all five are there and none is empty. `host`
/// and `port` are what stands before and behind the first ":" of `address`; `port` is empty without one. A
/// further "/" ends the mask, and ill-formed UTF-8 ends the text.
std::optional<DevicePathName> SplitDevicePathName(std::string_view text);

/// Takes a path name apart when it is well-formed: a host as for IsHostName, a port of 1 to 5 digits, a GUID,
/// a MAC address of 1 to 32 hexadecimal digits and "-", IP address and mask of digits and ".". Whether port,
/// IP address and mask are in range is left to the caller.
std::optional<DevicePathName> ParseDevicePathName(std::string_view text);

#pragma once

#include <cstdint>

#include "kel/types.h"

/// A device of the tree.
struct Device {
    KelString guid;
    KelString name;
    KelString role;        ///< "master", "relay" or "client"
    KelString address;     ///< host:port
    KelString parentGuid;  ///< empty for the master
    KelString pathName;    ///< host:port/GUID/MAC/IP/mask
    // When the first and the latest sign of life came, seconds since the epoch by the master's clock; 0:
    // never.
    std::int64_t firstSeen = 0;
    std::int64_t lastSeen = 0;
};

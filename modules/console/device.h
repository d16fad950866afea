#pragma once

#include "kel/types.h"

/// A device of the tree.
struct Device {
    KelString guid;
    KelString name;
    KelString role;        ///< "master", "relay" or "client"
    KelString address;     ///< host:port
    KelString parentGuid;  ///< empty for the master
    KelString pathName;    ///< host:port/GUID/MAC/IP/mask
};

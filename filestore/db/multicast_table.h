#pragma once

#include <cstdint>

#include "kel/types.h"

/// The table MulticastListenAddress of the downstream database: the devices that listen for a multicast
/// transfer, by group address, with the state that each has reached.
namespace filestore {

struct MulticastGroupCount {
    KelString address;
    KelString status;
    std::int32_t devices = 0;  ///< in this status
};
/// One row a group and status, ordered by group.
KelVector<MulticastGroupCount> CountMulticastDevices();

struct MulticastDevice {
    KelString address;    ///< group
    KelString deviceUrl;  ///< call URL, with credentials
    KelString status;
};
/// All devices, ordered by group and status.
KelVector<MulticastDevice> SelectMulticastDevices();

}  // namespace filestore

#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

/// A device's place in the printed tree.
struct DeviceRow {
    std::uint32_t index;  ///< among the containers under "Values"
    std::uint32_t depth;  ///< 0: no parent above it is known
};

/// The devices under "Values" in `answer` (each with GUID and Parent), parents before their children and
/// otherwise in their order. Every device appears once, also when parents name each other in a circle.
KelVector<DeviceRow> OrderByParent(const KelContainer& answer);

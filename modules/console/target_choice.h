#pragma once

#include <cstddef>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"
#include "modules/console/device_groups.h"

/// True when the text is a pattern for names: "*" stands for any characters, "?" for one, "[a-c]" for one of
/// several.
bool IsNamePattern(const KelString& text);

/// The targets of a publication.
struct ChosenTargets {
    KelVector<std::size_t> indexes;  ///< each once, in the order in which they were named
    KelVector<KelString> leftOut;    ///< why devices that "all" or a pattern stands for cannot be reached
};

/// The devices that `wanted` names, among `devices`, whose first entry is the master:
/// - "all" alone is every device but the master, "none" alone no device;
/// - a GUID or name (in any case) is that device; an error when it cannot be reached;
/// - a pattern is every device but the master whose name matches it, in any case, as far as it can be
///   reached. A device with the text as its name comes first.
/// - a group is what its members stand for; an error when a device has the same name.
/// What matches no device, or only devices that cannot be reached, is an error that names it.
KelResult<ChosenTargets> ChooseTargets(const KelVector<Device>& devices, const KelVector<DeviceGroup>& groups,
                                       const KelVector<KelString>& wanted);

#pragma once

#include <cstddef>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"

/// The ways through the tree from the master, the first entry of `devices`, down to each device. The list
/// must outlive the object unchanged. Any thread, concurrently.
class DeviceWays {
  public:
    explicit DeviceWays(const KelVector<Device>& devices);

    /// Appends to `way` the devices from `device` up to the one below the master; none for the master itself.
    /// A device whose parents do not lead to the master, or that lies deeper than kMaxTreeLevels, is an error
    /// that names it.
    KelStatus FindWayUp(std::size_t device, KelVector<std::size_t>& way) const;

  private:
    const KelVector<Device>& devices_;
    KelHash<KelString, std::size_t> indexes_;
};

/// Builds the target tree of a file for the devices at the indexes `targets` (duplicates count once) of
/// `devices`, whose first entry is the master.
///
/// The tree has one name, the master's path name; below it each device's path name holds a container with the
/// path names of the next level, an empty one for a device that is only a target itself. Relays on the way to
/// a target are included. A relay (or the master) that is a target and has targets below it appears once more
/// among its own children, with an empty container.
///
/// A device without a way from the master (see DeviceWays) is an error that names it; so is an empty list of
/// targets.
KelResult<KelContainer> BuildDevicePath(const KelVector<Device>& devices,
                                        const KelVector<std::size_t>& targets);

/// Removes from `targets` the devices that would make BuildDevicePath fail; returns one text for each that
/// says why.
KelVector<KelString> RemoveUnreachable(const KelVector<Device>& devices, KelVector<std::size_t>& targets);

/// Levels of a tree, the master's included. Containers nest at most 64 deep, and the tree travels inside
/// others.
inline constexpr std::size_t kMaxTreeLevels = 48;

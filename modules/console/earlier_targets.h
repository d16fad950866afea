#pragma once

#include <cstddef>

#include "kel/types.h"
#include "modules/console/device.h"
#include "modules/console/publication_store.h"

/// Decides, before a file goes out, where it stands on the devices at the indexes `targets` of `devices`,
/// whose first entry is the master and which lead to all targets; `earlier` is what is known of the file.
/// Each result belongs to the target in the same place.
///
/// A store takes a file key (type, label, name and checksum) only once, and a device that dealt with one
/// sends no second receipt. So a target is delivered at once when it has this content, and failed at once,
/// with a message that says why and what to do, when the file cannot come to it any more: it got another
/// content after this one or is to get one, it failed before, or its store or one on its way took the key
/// without it. Only pending targets are to be offered the file.
SettledTargets SettleTargets(const KelVector<Device>& devices, const KelVector<std::size_t>& targets,
                             const KelVector<EarlierTarget>& earlier);

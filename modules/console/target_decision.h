#pragma once

#include <cstddef>

#include "kel/types.h"
#include "modules/console/device.h"
#include "modules/console/publication_store.h"

/// Decides, before a file is offered, its state on the devices at the indexes `targets` of `devices`, whose
/// first entry is the master and which lead to all targets; `earlier` is what is known about the file. Each
/// result belongs to the target in the same place.
///
/// A store takes a file key (type, label, name and checksum) only once, and a device that has dealt with one
/// sends no second receipt. So a target counts as delivered at once when it has this content, and as failed
/// at once, with a message that says why and what to do, when the file can no longer reach it: it has
/// received another content since or will receive one, it failed before, or its store or one on the way has
/// taken the key without it. The file need only be offered to the pending targets.
TargetDecision DecideTargets(const KelVector<Device>& devices, const KelVector<std::size_t>& targets,
                             const KelVector<EarlierTarget>& earlier);

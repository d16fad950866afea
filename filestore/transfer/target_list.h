#pragma once

#include "kel/container.h"
#include "kel/types.h"

namespace filestore {

/// The INSERT statements that record the targets of a file from its target tree: none when the tree is not
/// addressed to this device. Announces Wake-on-LAN data of the next-level devices on the way (local actions):
/// hold no lock.
KelVector<KelString> TargetStatements(unsigned long fileId, unsigned int wakeOnLan,
                                      const KelContainer& targets);

}  // namespace filestore

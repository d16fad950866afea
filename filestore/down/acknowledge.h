#pragma once

#include "kel/types.h"
#include "kelcore/file_key.h"

namespace filestore {

/// Reports to the device at `callUrl` that this device, `ownUrl` (its device URL), has the file: the sender
/// then stops announcing it here. Result of the action, 0 when the sender has taken it. Network; hold no
/// lock.
unsigned int SendAcknowledgement(const KelString& callUrl, const FileKey& key, const KelString& ownUrl);

}  // namespace filestore

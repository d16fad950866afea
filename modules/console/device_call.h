#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "modules/console/device_directory.h"

/// Calls actions on the devices of the tree for the operator of the master. Any thread.
class DeviceCaller {
  public:
    explicit DeviceCaller(DeviceDirectory& directory) : directory_(directory) {}

    /// `arguments`: Device (GUID or name), Action, Arguments (container), Seconds (int32, for the answer) and
    /// what the server has added. Gives Result (int64) and Answer (container), those of the action, or an
    /// error when the device or one on the way to it does not take the call. A change is recorded in the
    /// audit. Blocks on the network: hold no lock.
    KelResult<KelContainer> Call(const KelContainer& arguments);

  private:
    DeviceDirectory& directory_;
};

#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "modules/console/device_directory.h"
#include "modules/console/device_groups.h"

/// The actions of the console on groups of devices, listed in Register; see DeviceGroups. Those that change a
/// group are refused to other devices.
class GroupActions {
  public:
    GroupActions(const KelDebug& log, DeviceDirectory& directory, DeviceGroups& groups)
        : log_(log), directory_(directory), groups_(groups) {}

    void Register(const char* handle);

  private:
    KelResult<KelContainer> List(const KelString& name);
    KelStatus Change(const char* action, const KelContainer& arguments);
    KelStatus CheckIsNoDevice(const KelString& name);

    const KelDebug& log_;
    DeviceDirectory& directory_;
    DeviceGroups& groups_;
};

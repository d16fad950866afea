#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "modules/console/device_directory.h"
#include "modules/console/device_groups.h"

/// The actions of the console on groups of devices. Those that change a group are refused to other devices.
///
/// - ConsoleListGroups (optional Name) -> Values[i]{Name, Members, Devices (int32: that the members stand for
///   now)}; with Name, a group: Values[i]{Member, Devices (int32), Message (why it stands for no device)}
/// - ConsoleSetGroup, ConsoleAddToGroup, ConsoleRemoveFromGroup (Name, Member[i]): give a group these members
///   only, add members, remove members; see DeviceGroups
/// - ConsoleDeleteGroup (Name)
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

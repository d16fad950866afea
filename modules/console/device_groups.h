#pragma once

#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/console_database.h"

/// Devices that are targets together.
struct DeviceGroup {
    KelString name;
    KelVector<KelString>
        members;  ///< GUIDs, names and patterns of names, in the order in which they were added
};

/// The named groups of devices in the console's database. What the members stand for is only decided when a
/// file is published. A group exists while it has members. Names and members are compared in any case. Any
/// thread.
class DeviceGroups {
  public:
    explicit DeviceGroups(ConsoleDatabase& database) : database_(database) {}

    /// All groups by name; an error when they cannot be read.
    KelResult<KelVector<DeviceGroup>> List();

    // Each changes all or nothing. An error names what is unusable: a name that cannot be told from another
    // target, an unknown group, a member that is none.

    /// Gives the group these members only, and makes it when it is new.
    KelStatus Set(const KelString& name, const KelVector<KelString>& members);
    /// Adds members, which may be there already, and makes the group when it is new.
    KelStatus Add(const KelString& name, const KelVector<KelString>& members);
    /// Removes members; with the last one the group is gone.
    KelStatus Remove(const KelString& name, const KelVector<KelString>& members);
    KelStatus Delete(const KelString& name);

  private:
    KelResult<DeviceGroup> Find(const KelString& name);
    KelStatus CheckMembers(const KelString& name, const KelVector<KelString>& members);
    KelStatus Write(const KelVector<KelString>& statements);

    ConsoleDatabase& database_;
    KelMutex mutex_;  ///< held from reading a group until its change is written
};

/// A group by its name, in any case; null when there is none.
const DeviceGroup* FindGroup(const KelVector<DeviceGroup>& groups, const KelString& name);

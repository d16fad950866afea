#pragma once

#include <unordered_set>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"
#include "modules/console/device_store.h"

/// All devices of the tree: the master itself as its neighbouring modules describe it, those that reported
/// themselves, and those that only the section Devices of the ini file names. Any thread.
class DeviceDirectory {
  public:
    DeviceDirectory(const KelDebug& log, DeviceStore& store) : log_(log), store_(store) {}

    /// Before the first use.
    void SetIniPath(const KelString& path) { iniPath_ = path; }

    /// The devices at this moment, the master first. Unusable entries of the ini file are left out and logged
    /// once. Calls local actions: no lock may be held.
    KelResult<KelVector<Device>> Read();

  private:
    void LogProblemsOnce(const KelVector<KelString>& problems);

    const KelDebug& log_;
    DeviceStore& store_;
    KelString iniPath_;
    KelMutex mutex_;
    std::unordered_set<KelString> loggedProblems_ KEL_GUARDED_BY(mutex_);  ///< of the present ini file
};

#pragma once

#include <cstdint>
#include <unordered_set>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/console_database.h"
#include "modules/console/device.h"
#include "modules/console/device_report.h"

/// The devices that have reported themselves, in the table Devices of the console's database: one row per
/// GUID with the latest report. Any thread. Times are seconds since the epoch by the master's clock.
class DeviceStore {
  public:
    explicit DeviceStore(ConsoleDatabase& database) : database_(database) {}

    /// Stores a report that arrived at `now`. A report older than the stored one only updates the time of the
    /// last contact. The time of a report is capped at `now`: otherwise a device whose clock once ran ahead
    /// could not report again until that time. False when it could not be written.
    bool Store(const IdentityReport& report, std::int64_t now);

    /// True when the report, which arrived at `now`, names another store database than the latest report of
    /// the device before it. An error when the database cannot be read.
    KelResult<bool> HasLostItsStore(const IdentityReport& report, std::int64_t now);

    /// True when the report, which arrived at `now`, names another parent or another address than the latest
    /// report of the device before it. An error when the database cannot be read.
    KelResult<bool> HasMoved(const IdentityReport& report, std::int64_t now);

    /// True when the report before the one that arrived at `now` is so old that the device was away in
    /// between (kSilentSeconds): stores on the way to it may have given up what it was to get. An error when
    /// the database cannot be read.
    KelResult<bool> WasAway(const KelString& guid, std::int64_t now);

    /// All devices by GUID; an error when they cannot be read.
    KelResult<KelVector<Device>> List();

  private:
    KelResult<bool> IsThere(const KelString& condition);

    ConsoleDatabase& database_;
};

/// All devices of the tree: the master itself as its neighbouring modules describe it, those that have
/// reported themselves, and those that only the section Devices of the ini file names. Any thread.
class DeviceDirectory {
  public:
    DeviceDirectory(const KelDebug& log, DeviceStore& store) : log_(log), store_(store) {}

    /// Before the first use.
    void SetIniPath(const KelString& path) { iniPath_ = path; }

    /// The devices at this moment, the master first. Unusable entries of the ini file are left out and logged
    /// once. Calls local actions: no lock may be held.
    KelResult<KelVector<Device>> Read();

    /// True when the ini file names this device, or cannot be read.
    bool IsListed(const KelString& guid) const;

  private:
    void LogProblemsOnce(const KelVector<KelString>& problems);

    const KelDebug& log_;
    DeviceStore& store_;
    KelString iniPath_;
    KelMutex mutex_;
    std::unordered_set<KelString> loggedProblems_ KEL_GUARDED_BY(mutex_);  ///< of the present ini file
};

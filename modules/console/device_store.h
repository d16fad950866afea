#pragma once

#include <cstdint>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/console_database.h"
#include "modules/console/device.h"
#include "modules/console/device_report.h"

/// The devices that reported themselves, in the table Devices of the console's database: one row per GUID
/// with the latest report. Any thread. Times are seconds since the epoch by the master's clock.
class DeviceStore {
  public:
    explicit DeviceStore(ConsoleDatabase& database) : database_(database) {}

    /// Takes over a report that arrived at `now`. One that is older than the known one only counts as a sign
    /// of life. A report "from the future" counts as made now, so that a wrong clock does not outlast its
    /// correction. False when it could not be written.
    bool Take(const IdentityReport& report, std::int64_t now);

    /// All devices by GUID; an error when they cannot be read.
    KelResult<KelVector<Device>> List();

  private:
    ConsoleDatabase& database_;
};

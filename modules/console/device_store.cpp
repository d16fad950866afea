#include "modules/console/device_store.h"

#include <algorithm>

#include "kel/format.h"
#include "kelcore/error_codes.h"

bool DeviceStore::Take(const IdentityReport& report, std::int64_t now) {
    const Device& device = report.device;
    return database_.Write(
        {KelFormat("INSERT INTO Devices "
                   "(GUID, Name, Role, Address, ParentGuid, PathName, FirstSeen, LastSeen, ReportTime) "
                   "VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %gd) "
                   "ON CONFLICT (GUID) DO UPDATE SET Name = excluded.Name, Role = excluded.Role, "
                   "Address = excluded.Address, ParentGuid = excluded.ParentGuid, "
                   "PathName = excluded.PathName, ReportTime = excluded.ReportTime "
                   "WHERE excluded.ReportTime >= ReportTime",
                   device.guid, device.name, device.role, device.address, device.parentGuid, device.pathName,
                   now, now, std::min(report.time, now)),
         KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, device.guid)});
}

KelResult<KelVector<Device>> DeviceStore::List() {
    const auto rows = database_.Select(
        "SELECT GUID, Name, Role, Address, ParentGuid, PathName, FirstSeen, LastSeen FROM Devices ORDER BY "
        "GUID");
    if (!rows) return KelError{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
    KelVector<Device> devices(rows->GetRowCount());
    for (std::size_t row = 0; row < devices.size(); ++row) {
        Device& device = devices[row];
        device.guid = rows->GetString(row, 0);
        device.name = rows->GetString(row, 1);
        device.role = rows->GetString(row, 2);
        device.address = rows->GetString(row, 3);
        device.parentGuid = rows->GetString(row, 4);
        device.pathName = rows->GetString(row, 5);
        device.firstSeen = rows->GetInt64(row, std::size_t{6});
        device.lastSeen = rows->GetInt64(row, std::size_t{7});
    }
    return devices;
}

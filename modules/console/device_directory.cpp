#include "modules/console/device_directory.h"

#include <algorithm>

#include "kel/format.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

KelResult<KelContainer> ValuesOf(const char* action) {
    KelContainer answer;
    if (CallLocal(action, answer) != kKelOk) {
        return KelError{kKelErrorNotAvailable, "The modules Identity and HttpProtocol do not answer"};
    }
    return answer.GetContainer("Values");
}

KelResult<Device> ReadMaster() {
    const auto identity = ValuesOf("IdentityGetValues");
    if (!identity) return identity.Error();
    const auto http = ValuesOf("HttpProtocolGetParams");
    if (!http) return http.Error();
    const KelString ipAddress = identity->GetString("IPAddress");
    const KelString hostName =
        identity->GetBool("PreferIPAddresses") ? ipAddress : identity->GetString("HostName");
    Device master;
    const KelString pathName =
        KelFormat("%S:%d/%S/%S/%S/%S", hostName, http->GetInt32("Port"), identity->GetString("GUID"),
                  identity->GetString("MACAddress"), ipAddress, identity->GetString("NetworkMask"));
    if (const KelStatus parsed = ParsePathName(pathName, master); !parsed) {
        return KelError{kKelErrorNotAvailable,
                        "The master's own address is not known yet: " + parsed.Error().message};
    }
    master.name = identity->GetString("HostName");
    master.role = "master";
    return master;
}

}  // namespace

bool DeviceStore::Store(const IdentityReport& report, std::int64_t now) {
    const Device& device = report.device;
    return database_.Write(
        {KelFormat(
             "INSERT INTO Devices "
             "(GUID, Name, Role, Address, ParentGuid, PathName, FirstSeen, LastSeen, ReportTime, StoreId, "
             "Version) "
             "VALUES ('%Q', '%Q', '%Q', '%Q', '%Q', '%Q', %gd, %gd, %gd, '%Q', '%Q') "
             "ON CONFLICT (GUID) DO UPDATE SET Name = excluded.Name, Role = excluded.Role, "
             "Address = excluded.Address, ParentGuid = excluded.ParentGuid, "
             "PathName = excluded.PathName, ReportTime = excluded.ReportTime, StoreId = excluded.StoreId, "
             "Version = excluded.Version "
             "WHERE excluded.ReportTime >= ReportTime",
             device.guid, device.name, device.role, device.address, device.parentGuid, device.pathName, now,
             now, std::min(report.time, now), report.storeId, device.version),
         KelFormat("UPDATE Devices SET LastSeen = %gd WHERE GUID = '%Q'", now, device.guid)});
}

KelResult<bool> DeviceStore::IsThere(const KelString& condition) {
    const auto rows = database_.Select("SELECT 1 FROM Devices WHERE " + condition);
    if (!rows) return KelError{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
    return rows->GetRowCount() != 0;
}

KelResult<bool> DeviceStore::HasLostItsStore(const IdentityReport& report, std::int64_t now) {
    if (report.storeId.empty()) return false;
    return IsThere(KelFormat("GUID = '%Q' AND StoreId NOT IN ('', '%Q') AND ReportTime <= %gd",
                             report.device.guid, report.storeId, std::min(report.time, now)));
}

KelResult<bool> DeviceStore::HasMoved(const IdentityReport& report, std::int64_t now) {
    const Device& device = report.device;
    return IsThere(KelFormat("GUID = '%Q' AND (ParentGuid <> '%Q' OR Address <> '%Q') AND ReportTime <= %gd",
                             device.guid, device.parentGuid, device.address, std::min(report.time, now)));
}

KelResult<bool> DeviceStore::WasAway(const KelString& guid, std::int64_t now) {
    return IsThere(KelFormat("GUID = '%Q' AND ReportTime < %gd", guid, now - kSilentSeconds));
}

KelResult<KelVector<Device>> DeviceStore::List() {
    const auto rows = database_.Select(
        "SELECT GUID, Name, Role, Address, ParentGuid, PathName, FirstSeen, LastSeen, Version FROM Devices "
        "ORDER BY GUID");
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
        device.version = rows->GetString(row, 8);
    }
    return devices;
}

void DeviceDirectory::LogProblemsOnce(const KelVector<KelString>& problems) {
    std::unordered_set<KelString> present(problems.begin(), problems.end());
    {
        const KelLock lock(mutex_);
        present.swap(loggedProblems_);
    }
    for (const KelString& problem : problems) {
        if (!present.contains(problem)) log_.Warning("%S is left out: %S\n", iniPath_, problem);
    }
}

bool DeviceDirectory::IsListed(const KelString& guid) const {
    IniFile ini;
    KelVector<KelString> problems;
    if (!ini.Open(iniPath_)) return true;
    const KelVector<Device> listed = ReadDevices(ini, problems);
    return std::any_of(listed.begin(), listed.end(),
                       [&guid](const Device& device) { return device.guid == guid; });
}

KelResult<KelVector<Device>> DeviceDirectory::Read() {
    auto master = ReadMaster();
    if (!master) return master.Error();
    auto reported = store_.List();
    if (!reported) return reported.Error();
    IniFile ini;
    if (!ini.Open(iniPath_)) {
        return KelError{kKelErrorNotAvailable, KelFormat("%S cannot be read or is malformed", iniPath_)};
    }
    KelVector<KelString> problems;
    KelVector<Device> listed = ReadDevices(ini, problems);
    LogProblemsOnce(problems);

    // A device's own report wins over the ini file. A report of another device with the role master is
    // ignored.
    KelVector<Device> devices = {*master};
    std::unordered_set<KelString> known = {master->guid};
    for (Device& device : *reported) {
        if (device.guid == master->guid) {
            devices[0].firstSeen = device.firstSeen;
            devices[0].lastSeen = device.lastSeen;
            devices[0].version = device.version;
        } else if (device.role != "master" && known.insert(device.guid).second) {
            devices.push_back(std::move(device));
        }
    }
    for (Device& device : listed) {
        if (known.insert(device.guid).second) devices.push_back(std::move(device));
    }
    return devices;
}

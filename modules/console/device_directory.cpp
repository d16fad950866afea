#include "modules/console/device_directory.h"

#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "modules/console/device_list.h"

namespace {

KelResult<KelContainer> ValuesOf(const char* action) {
    KelContainer answer;
    if (ActionDbInvokeContainer(nullptr, {}, action, answer, 0, -1, -1, nullptr) != kKelOk) {
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

    KelVector<Device> devices = {*master};
    std::unordered_set<KelString> known = {master->guid};
    for (Device& device : *reported) {
        if (device.guid == master->guid) {
            devices[0].firstSeen = device.firstSeen;
            devices[0].lastSeen = device.lastSeen;
        } else if (device.role != "master" && known.insert(device.guid).second) {
            devices.push_back(std::move(device));
        }
    }
    for (Device& device : listed) {
        if (known.insert(device.guid).second) devices.push_back(std::move(device));
    }
    return devices;
}

#include "modules/console/device_list.h"

#include <optional>

#include "kel/format.h"
#include "kel/ip_address.h"
#include "kel/regex.h"
#include "kel/text.h"

namespace {

constexpr char kSection[] = "Devices";
constexpr char kGuidPattern[] = "[0-9A-F]{8}-(?:[0-9A-F]{4}-){3}[0-9A-F]{12}";

KelVector<KelString> Words(const KelString& text) {
    KelVector<KelString> words;
    for (KelString& piece : SplitText(ReplaceAll(text, "\t", " "), ' ')) {
        if (!piece.empty()) words.push_back(std::move(piece));
    }
    return words;
}

bool IsGuid(const KelString& text) {
    KelVector<KelString> captures;
    return FindPcre(KelFormat("\\A%s\\z", kGuidPattern), text, captures);
}

}  // namespace

KelStatus ParsePathName(const KelString& pathName, Device& device) {
    static const KelString pattern = KelFormat(
        "\\A(([A-Za-z0-9._-]{1,253}):([0-9]{1,5}))/(%s)/([0-9A-Fa-f-]{1,32})/([0-9.]+)/([0-9.]+)\\z",
        kGuidPattern);
    KelVector<KelString> captures;
    if (!FindPcre(pattern, pathName, captures)) {
        return KelError{1,
                        KelFormat("\"%S\" is no path name of the form host:port/GUID/MAC/IP/mask", pathName)};
    }
    const auto port = ParseInt64(captures[3]).value_or(0);
    if (port < 1 || port > 65535)
        return KelError{1, KelFormat("The port in \"%S\" is not 1 to 65535", pathName)};
    if (!IpAddress::Parse(captures[6]) || !IpAddress::Parse(captures[7])) {
        return KelError{1, KelFormat("The IP address or the network mask in \"%S\" is malformed", pathName)};
    }
    device.address = captures[1];
    device.guid = captures[4];
    device.pathName = pathName;
    return {};
}

KelResult<Device> ParseDeviceEntry(const KelString& key, const KelString& value) {
    const auto words = Words(value);
    if (words.size() < 3 || words.size() > 4) {
        return KelError{
            1, KelFormat("Device %S: \"%S\" is not of the form PATHNAME PARENTGUID ROLE [NAME]", key, value)};
    }
    Device device;
    if (const KelStatus parsed = ParsePathName(words[0], device); !parsed) {
        return KelError{1, KelFormat("Device %S: %S", key, parsed.Error().message)};
    }
    if (!IsEqualTo(device.guid, key, false)) {
        return KelError{1, KelFormat("Device %S: its path name holds another GUID, %S", key, device.guid)};
    }
    if (!IsGuid(words[1]) || words[1] == device.guid) {
        return KelError{
            1, KelFormat("Device %S: the parent \"%S\" is no GUID of another device", key, words[1])};
    }
    if (words[2] != "relay" && words[2] != "client") {
        return KelError{1,
                        KelFormat("Device %S: the role \"%S\" is neither relay nor client", key, words[2])};
    }
    device.parentGuid = words[1];
    device.role = words[2];
    device.name = words.size() == 4 ? words[3] : device.address.substr(0, device.address.find(':'));
    if (HasControlCharacter(device.name) || device.name.find('\'') != KelString::npos) {
        return KelError{1, KelFormat("Device %S: its name holds an apostrophe or a control character", key)};
    }
    return device;
}

KelVector<Device> ReadDevices(const IniFile& ini, KelVector<KelString>& problems) {
    KelVector<Device> devices;
    for (const KelString& key : ini.GetKeys(kSection)) {
        KelString value;
        ini.GetEntryValue(kSection, key, value, KelString());
        auto device = ParseDeviceEntry(key, value);
        if (device) {
            devices.push_back(std::move(*device));
        } else {
            problems.push_back(device.Error().message);
        }
    }
    return devices;
}

KelResult<std::size_t> FindDevice(const KelVector<Device>& devices, const KelString& guidOrName) {
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (IsEqualTo(devices[i].guid, guidOrName, false)) return i;
        if (!IsEqualTo(devices[i].name, guidOrName, false)) continue;
        if (found) {
            return KelError{
                1, KelFormat("The name \"%S\" belongs to several devices; give the GUID", guidOrName)};
        }
        found = i;
    }
    if (!found) return KelError{1, KelFormat("There is no device \"%S\"", guidOrName)};
    return *found;
}

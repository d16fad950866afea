#include "modules/console/device.h"

#include "kel/format.h"
#include "kel/ip_address.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr char kSection[] = "Devices";
constexpr std::size_t kMaxNameBytes = 253;

KelVector<KelString> Words(const KelString& text) {
    KelVector<KelString> words;
    for (KelString& piece : SplitText(ReplaceAll(text, "\t", " "), ' ')) {
        if (!piece.empty()) words.push_back(std::move(piece));
    }
    return words;
}

}  // namespace

bool IsDeviceName(const KelString& text) {
    return !text.empty() && text.size() <= kMaxNameBytes && !HasControlCharacter(text) &&
           text.find_first_of("'/") == KelString::npos;
}

KelStatus ParsePathName(const KelString& pathName, Device& device) {
    const auto parts = ParseDevicePathName(pathName);
    if (!parts) {
        return KelError{
            kKelErrorBadInput,
            KelFormat("\"%S\" is not a path name of the form host:port/GUID/MAC/IP/mask", pathName)};
    }
    const auto port = ParseInt64(parts->port).value_or(0);
    if (port < 1 || port > 65535)
        return KelError{kKelErrorBadInput, KelFormat("The port in \"%S\" is not 1 to 65535", pathName)};
    if (!IpAddress::Parse(parts->ipAddress) || !IpAddress::Parse(parts->networkMask)) {
        return KelError{kKelErrorBadInput,
                        KelFormat("The IP address or the network mask in \"%S\" is malformed", pathName)};
    }
    device.address = parts->address;
    device.guid = parts->guid;
    device.pathName = pathName;
    return {};
}

KelResult<Device> ParseDeviceEntry(const KelString& key, const KelString& value) {
    const auto words = Words(value);
    if (words.size() < 3 || words.size() > 4) {
        return KelError{
            kKelErrorBadInput,
            KelFormat("Device %S: \"%S\" is not of the form PATHNAME PARENTGUID ROLE [NAME]", key, value)};
    }
    Device device;
    if (const KelStatus parsed = ParsePathName(words[0], device); !parsed) {
        return KelError{kKelErrorBadInput, KelFormat("Device %S: %S", key, parsed.Error().message)};
    }
    if (!IsEqualTo(device.guid, key, false)) {
        return KelError{kKelErrorBadInput,
                        KelFormat("Device %S: its path name holds another GUID, %S", key, device.guid)};
    }
    if (!IsGuid(words[1]) || words[1] == device.guid) {
        return KelError{
            kKelErrorBadInput,
            KelFormat("Device %S: the parent \"%S\" is not the GUID of another device", key, words[1])};
    }
    if (words[2] != "relay" && words[2] != "client") {
        return KelError{kKelErrorBadInput,
                        KelFormat("Device %S: the role \"%S\" is neither relay nor client", key, words[2])};
    }
    device.parentGuid = words[1];
    device.role = words[2];
    device.name = words.size() == 4 ? words[3] : device.address.substr(0, device.address.find(':'));
    if (!IsDeviceName(device.name)) {
        return KelError{
            kKelErrorBadInput,
            KelFormat("Device %S: its name is too long or holds an apostrophe, a slash or a control "
                      "character",
                      key)};
    }
    return device;
}

KelVector<Device> ReadDevices(const IniFile& ini, KelVector<KelString>& problems) {
    KelVector<Device> devices;
    for (const auto& [key, value] : ini.GetEntries(kSection)) {
        auto device = ParseDeviceEntry(key, value);
        if (device) {
            devices.push_back(std::move(*device));
        } else {
            problems.push_back(device.Error().message);
        }
    }
    return devices;
}

DeviceIndex::DeviceIndex(const KelVector<Device>& devices) {
    for (std::size_t i = 0; i < devices.size(); ++i) {
        guids_.emplace(ToLowerText(devices[i].guid), i);
        names_[ToLowerText(devices[i].name)].push_back(i);
    }
}

KelResult<std::size_t> DeviceIndex::Find(const KelString& guidOrName) const {
    const KelString key = ToLowerText(guidOrName);
    if (const auto found = guids_.find(key); found != guids_.end()) return found->second;
    const auto found = names_.find(key);
    if (found == names_.end())
        return KelError{kKelErrorBadInput, KelFormat("There is no device \"%S\"", guidOrName)};
    if (found->second.size() > 1) {
        return KelError{kKelErrorBadInput,
                        KelFormat("The name \"%S\" belongs to several devices; give the GUID", guidOrName)};
    }
    return found->second.front();
}

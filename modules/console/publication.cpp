#include "modules/console/publication.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "modules/console/device_list.h"
#include "modules/console/device_tree.h"

namespace {

constexpr char kAllDevices[] = "all";
constexpr char kNoDevice[] = "none";

bool IsOnly(const KelVector<KelString>& wanted, const char* word) {
    return wanted.size() == 1 && wanted.front() == word;
}

KelStatus CheckKeyPart(const char* valueName, const KelString& value) {
    if (IsSafePathElement(value)) return {};
    return KelError{
        1, KelFormat("%s \"%S\" is unusable: it must be a name of 1 to 255 bytes without \"/\", \"\\\" or "
                     "control characters",
                     valueName, value)};
}

/// The file store puts a type into statements as it is.
KelStatus CheckType(const KelString& type) {
    if (type.find('\'') == KelString::npos) return CheckKeyPart("FileType", type);
    return KelError{1, KelFormat("FileType \"%S\" is unusable: it holds an apostrophe", type)};
}

KelStatus CheckSource(const KelString& path) {
    if (path.empty()) return KelError{1, "FilePath is missing"};
    if (path.front() != '/' || path.find('\0') != KelString::npos) {
        return KelError{1, KelFormat("FilePath \"%S\" is no absolute path", path)};
    }
    if (!FileExists(path)) return KelError{1, KelFormat("The file %S does not exist", path)};
    return {};
}

KelStatus CheckRequest(const PublicationRequest& request) {
    if (KelStatus checked = CheckSource(request.filePath); !checked) return checked;
    if (KelStatus checked = CheckType(request.fileType); !checked) return checked;
    if (KelStatus checked = CheckKeyPart("FileLabel", request.fileLabel); !checked) return checked;
    if (KelStatus checked = CheckKeyPart("FileName", request.fileName); !checked) return checked;
    if (request.fileName.starts_with(kTempFilePrefix))
        return KelError{1, KelFormat("FileName \"%S\" is unusable: such names are those of unfinished files",
                                     request.fileName)};
    if (request.devices.empty())
        return KelError{1, "Device is missing; name devices, or one \"all\" or \"none\""};
    if (request.priority < 0) return KelError{1, KelFormat("Priority %d is negative", request.priority)};
    return {};
}

}  // namespace

KelResult<PublicationRequest> ReadPublicationRequest(const KelContainer& arguments) {
    PublicationRequest request;
    request.filePath = arguments.GetString("FilePath");
    request.fileType = arguments.GetString("FileType");
    request.fileLabel = arguments.GetString("FileLabel");
    request.fileName = arguments.GetString("FileName");
    if (request.fileName.empty()) {
        KelString folder;
        SplitPath(request.filePath, folder, request.fileName);
    }
    const std::uint32_t count = arguments.Has("Device") ? arguments.Count("Device") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        request.devices.push_back(arguments.GetString("Device", {}, i));
    request.priority = arguments.GetInt32("Priority", request.priority);
    request.bypass = arguments.GetBool("Bypass");
    request.wakeOnLan = arguments.GetBool("WakeOnLan");
    request.keepCopy = arguments.GetInt32("KeepCopy");
    request.fileInfo = arguments.GetContainer("FileInfo");
    if (const KelStatus checked = CheckRequest(request); !checked) return checked.Error();
    return request;
}

KelResult<KelVector<std::size_t>> ChooseTargets(const KelVector<Device>& devices,
                                                const KelVector<KelString>& wanted,
                                                KelVector<KelString>& leftOut) {
    KelVector<std::size_t> targets;
    if (IsOnly(wanted, kNoDevice)) return targets;
    if (IsOnly(wanted, kAllDevices)) {
        for (std::size_t i = 1; i < devices.size(); ++i)
            targets.push_back(i);
        leftOut = RemoveUnreachable(devices, targets);
        if (!targets.empty()) return targets;
        return KelError{1, leftOut.empty() ? "There is no device but the master yet" : leftOut.front()};
    }
    const DeviceIndex index(devices);
    KelVector<bool> chosen(devices.size());
    for (const KelString& name : wanted) {
        const auto found = index.Find(name);
        if (!found) return found.Error();
        if (!chosen[*found]) targets.push_back(*found);
        chosen[*found] = true;
    }
    if (const auto problems = RemoveUnreachable(devices, targets); !problems.empty())
        return KelError{1, problems.front()};
    return targets;
}

KelContainer OfferFor(const PublicationRequest& request, const PackageFile& file, KelContainer devicePath) {
    KelContainer offer;
    offer.SetString("FileType", request.fileType);
    offer.SetString("FileLabel", request.fileLabel);
    offer.SetString("FileName", request.fileName);
    offer.SetString("FileChecksum", file.checksum);
    offer.SetString("FilePath", file.path);
    offer.SetString("FileURL", file.url);
    offer.SetInt64("FileSize", file.size);
    offer.SetBool("Upstream", false);
    offer.SetInt32("Priority", request.priority);
    offer.SetBool("Bypass", request.bypass);
    offer.SetBool("WakeOnLan", request.wakeOnLan);
    offer.SetInt32("KeepCopy", request.keepCopy);
    offer.SetContainer("FileInfo", request.fileInfo);
    if (!devicePath.IsEmpty()) offer.SetContainer("DevicePath", std::move(devicePath));
    return offer;
}

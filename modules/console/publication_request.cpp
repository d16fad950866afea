#include "modules/console/publication_request.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/console/stage_plan.h"

namespace {

KelStatus CheckKeyPart(const char* valueName, const KelString& value) {
    if (IsSafePathElement(value)) return {};
    return KelError{
        kKelErrorBadInput,
        KelFormat("%s \"%S\" is unusable: it must be a name of 1 to 255 bytes without \"/\", \"\\\" or "
                  "control characters",
                  valueName, value)};
}

/// The file store inserts a type into SQL statements unescaped.
KelStatus CheckType(const KelString& type) {
    if (type.find('\'') == KelString::npos) return CheckKeyPart(kValueFileType, type);
    return KelError{kKelErrorBadInput,
                    KelFormat("FileType \"%S\" is unusable: it holds an apostrophe", type)};
}

KelStatus CheckSource(const KelString& path) {
    if (path.empty()) return KelError{kKelErrorBadInput, "FilePath is missing"};
    if (path.front() != '/' || path.find('\0') != KelString::npos) {
        return KelError{kKelErrorBadInput, KelFormat("FilePath \"%S\" is not an absolute path", path)};
    }
    if (!FileExists(path))
        return KelError{kKelErrorBadInput,
                        KelFormat("The file %S does not exist, or the agent may not read it", path)};
    return {};
}

KelStatus CheckRequest(const PublicationRequest& request) {
    if (KelStatus checked = CheckSource(request.sourcePath); !checked) return checked;
    if (KelStatus checked = CheckType(request.file.type); !checked) return checked;
    if (KelStatus checked = CheckKeyPart(kValueFileLabel, request.file.label); !checked) return checked;
    if (KelStatus checked = CheckKeyPart(kValueFileName, request.file.name); !checked) return checked;
    if (request.file.name.starts_with(kTempFilePrefix))
        return KelError{
            kKelErrorBadInput,
            KelFormat(
                "FileName \"%S\" is unusable: names that begin like this are reserved for unfinished files",
                request.file.name)};
    if (request.devices.empty())
        return KelError{kKelErrorBadInput, "Device is missing; name devices, or one \"all\" or \"none\""};
    if (!request.stages.empty() && request.devices.front() == "none")
        return KelError{kKelErrorBadInput, "There are no targets to release in stages"};
    if (request.stopAtFailures < 0)
        return KelError{kKelErrorBadInput,
                        KelFormat("StopAtFailures %d is negative", request.stopAtFailures)};
    if (request.priority < 0)
        return KelError{kKelErrorBadInput, KelFormat("Priority %d is negative", request.priority)};
    return {};
}

}  // namespace

KelResult<PublicationRequest> ReadPublicationRequest(const KelContainer& arguments) {
    PublicationRequest request;
    request.sourcePath = arguments.GetString(kValueFilePath);
    request.file = FileKey::Read(arguments);
    request.file.checksum.clear();  // that of the copy counts, not a claim of the caller
    if (request.file.name.empty()) {
        KelString folder;
        SplitPath(request.sourcePath, folder, request.file.name);
    }
    const std::uint32_t count = arguments.Has("Device") ? arguments.Count("Device") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        request.devices.push_back(arguments.GetString("Device", {}, i));
    auto stages = ReadStagePercents(arguments);
    if (!stages) return stages.Error();
    request.stages = std::move(*stages);
    request.stopAtFailures = arguments.GetInt32("StopAtFailures", request.stopAtFailures);
    request.priority = arguments.GetInt32(kValuePriority, request.priority);
    request.bypass = arguments.GetBool(kValueBypass);
    request.wakeOnLan = arguments.GetBool(kValueWakeOnLan);
    request.keepCopy = arguments.GetInt32(kValueKeepCopy);
    request.fileInfo = arguments.GetContainer(kValueFileInfo);
    if (const KelStatus checked = CheckRequest(request); !checked) return checked.Error();
    return request;
}

#include "modules/relay/unconnected_request.h"

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

KelStatus CheckKey(const KelContainer& values) {
    for (const char* name : {kValueFileType, kValueFileLabel, kValueFileName, kValueFileChecksum}) {
        const KelString value = values.GetString(name);
        if (!IsSafePathElement(value))
            return KelError{kKelErrorBadInput, KelFormat("its %s \"%S\" is unusable", name, value)};
    }
    return {};
}

KelString NameOf(const KelString& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The content is looked for next to the request, because the agent's root folder may have moved since the
/// path was written.
KelStatus CheckContentFile(UnconnectedRequest& request) {
    const KelString content = request.path + ".xml";
    const KelString named = request.values.GetString(kValueFilePath);
    if (NameOf(named) != NameOf(content))
        return KelError{kKelErrorBadInput, KelFormat("its FilePath \"%S\" is unusable", named)};
    KelString checksum;
    if (!FileExists(content) || !FileMd5(content, checksum)) {
        return KelError{kKelErrorBadInput, KelFormat("its content, %S, is missing", content)};
    }
    if (!IsEqualTo(checksum, request.values.GetString(kValueFileChecksum), false)) {
        return KelError{kKelErrorBadInput, KelFormat("its content, %S, does not have its checksum", content)};
    }
    request.contentPath = content;
    return {};
}

}  // namespace

KelResult<UnconnectedRequest> ReadUnconnectedRequest(const KelString& path) {
    UnconnectedRequest request;
    request.path = path;
    if (const KelStatus loaded = request.values.LoadFromFile(path); !loaded) return loaded.Error();
    if (const KelStatus checked = CheckKey(request.values); !checked) return checked.Error();
    if (request.values.Has(kValueFilePath)) {
        if (const KelStatus checked = CheckContentFile(request); !checked) return checked.Error();
    } else if (!request.values.IsContainer(kValueFileInfo)) {
        return KelError{kKelErrorBadInput, "it has neither FileInfo nor FilePath"};
    }
    return request;
}

KelContainer ReplayArguments(const UnconnectedRequest& request, const KelString& ownDeviceUrl) {
    KelContainer arguments = request.values;
    if (!request.contentPath.empty()) {
        arguments.SetString(kValueFilePath, request.contentPath);
        arguments.Remove(kValueFileInfo);
    } else if (TextMd5(arguments.GetContainer(kValueFileInfo).SaveToXML()) !=
               arguments.GetString(kValueFileChecksum)) {
        // The kept checksum is that of the original text; the file store computes that of the text it writes.
        arguments.Remove(kValueFileChecksum);
    }
    if (!IsDeviceUrl(arguments.GetString(kValueSourceDevice)))
        arguments.SetString(kValueSourceDevice, ownDeviceUrl);
    return arguments;
}

KelResult<UnconnectedRequest> UnconnectedClaim::Take(const UnconnectedRequest& request) const {
    const KelString path = claimed_ + "/" + NameOf(request.path);
    const bool isMoved = PathCreate(claimed_) &&
                         (request.contentPath.empty() ||
                          FileRename(request.contentPath, claimed_ + "/" + NameOf(request.contentPath))) &&
                         FileRename(request.path, path);
    if (!isMoved) {
        return KelError{kKelErrorBadInput,
                        KelFormat("it cannot be moved to %S; check the rights of both folders", claimed_)};
    }
    return ReadUnconnectedRequest(path);
}

void UnconnectedClaim::GiveBack() const {
    for (const KelString& name : DirList(claimed_)) {
        const KelString claimed = claimed_ + "/" + name;
        const KelString kept = kept_ + "/" + name;
        if (!FileRename(claimed, kept, true) && FileExists(kept)) FileDelete(claimed);
    }
}

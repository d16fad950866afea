#include "modules/relay/unconnected_request.h"

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"

namespace {

KelStatus CheckKey(const KelContainer& values) {
    for (const char* name : {"FileType", "FileLabel", "FileName", "FileChecksum"}) {
        const KelString value = values.GetString(name);
        if (!IsSafePathElement(value))
            return KelError{1, KelFormat("its %s \"%S\" is unusable", name, value)};
    }
    return {};
}

KelString NameOf(const KelString& path) {
    return path.substr(path.rfind('/') + 1);
}

/// The content lies beside the request under its name, wherever the agent's root was when it was written.
KelStatus CheckContentFile(UnconnectedRequest& request) {
    const KelString content = request.path + ".xml";
    const KelString named = request.values.GetString("FilePath");
    if (NameOf(named) != NameOf(content))
        return KelError{1, KelFormat("its FilePath \"%S\" is unusable", named)};
    KelString checksum;
    if (!FileExists(content) || !FileMd5(content, checksum)) {
        return KelError{1, KelFormat("its content, %S, is missing", content)};
    }
    if (!IsEqualTo(checksum, request.values.GetString("FileChecksum"), false)) {
        return KelError{1, KelFormat("its content, %S, does not have its checksum", content)};
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
    if (request.values.Has("FilePath")) {
        if (const KelStatus checked = CheckContentFile(request); !checked) return checked.Error();
    } else if (!request.values.IsContainer("FileInfo")) {
        return KelError{1, "it has neither FileInfo nor FilePath"};
    }
    return request;
}

KelContainer ReplayArguments(const UnconnectedRequest& request, const KelString& ownDeviceUrl) {
    KelContainer arguments = request.values;
    if (!request.contentPath.empty()) {
        arguments.SetString("FilePath", request.contentPath);
        arguments.Remove("FileInfo");
    } else if (TextMd5(arguments.GetContainer("FileInfo").SaveToXML()) !=
               arguments.GetString("FileChecksum")) {
        // The checksum is that of the text it was read from; the file store takes that of what it writes.
        arguments.Remove("FileChecksum");
    }
    if (!IsDeviceUrl(arguments.GetString("SourceDevice"))) arguments.SetString("SourceDevice", ownDeviceUrl);
    return arguments;
}

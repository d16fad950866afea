#include "filestore/module/file_store.h"
#include "filestore/transfer/local_source.h"
#include "filestore/transfer/offer.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"

namespace {

/// What the offer names. Unlike the other receivers, the last of the three paths counts, and a MovePath asks
/// for the content to be moved whichever path that is.
struct UnconnectedSource {
    KelString path;
    bool move = false;
    bool isFile = false;  ///< FilePath: any content; otherwise the file is a container as XML
};

UnconnectedSource ReadSource(const KelContainer& arguments) {
    UnconnectedSource source;
    source.move = arguments.Has("MovePath");
    source.isFile = arguments.Has("FilePath");
    for (const char* name : {"MovePath", "CopyPath", "FilePath"})
        if (arguments.Has(name)) source.path = arguments.GetString(name);
    return source;
}

KelString TakeGuid(const KelString& guid) {
    KelString own;
    {
        const KelLock lock(FileStore::mutexGUID);
        if (filestore::IsPlainGuid(guid) && guid != FileStore::strOurGUID) {
            FileStore::strOurGUID = guid;
            FileStore::debugFileStore.Print("Received new GUID %S\n", guid);
        }
    }
    FileStore::GetOurDeviceGUID(own, true);
    return own;
}

bool Fail(const KelString& path) {
    FileStore::debugFileStore.Error(
        "Cannot keep the unconnected file '%S': check it, space and permissions\n", path);
    return false;
}

/// Puts the content where the replay will find it: beside the request, or into it.
bool KeepContent(const UnconnectedSource& source, const KelString& path, KelContainer& request) {
    if (source.isFile) {
        const KelString kept = path + ".xml";
        request.SetString("FilePath", kept);
        const bool done = source.move ? FileRename(source.path, kept) : FileCopy(source.path, kept, false);
        return done || Fail(source.path);
    }
    KelContainer info;
    if (const KelStatus loaded = info.LoadFromFile(source.path); !loaded) {
        FileStore::debugFileStore.Warning("Refusing the unconnected file '%S': %S\n", source.path,
                                          loaded.Error().message);
        return false;
    }
    request.SetContainer("FileInfo", std::move(info));
    return true;
}

}  // namespace

int FileStore::ReceiveUnconnectedLocalFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int /*keepCopy*/, bool /*bypass*/,
                                           unsigned int /*wakeOnLan*/, unsigned int /*priority*/) {
    const UnconnectedSource source = ReadSource(arguments);
    const std::int64_t size = FileGetSize64(source.path);
    if (!filestore::CheckUpstreamSize(source.path, size) || !filestore::FillChecksum(source.path, checksum))
        return kKelErrorBadInput;
    const KelString guid = arguments.GetString("GUID");
    arguments.Clear();
    const KelString ownGuid = TakeGuid(guid);
    arguments.SetString("FileType", type);
    arguments.SetString("FileLabel", label);
    arguments.SetString("FileName", name);
    arguments.SetString("FileChecksum", checksum);
    arguments.SetInt64("FileSize", size);
    arguments.SetString("SourceDevice", ownGuid);

    const char* subFolder = type == "IdentityIdentity" ? "identity" : "inventory";
    debugFileStore.Print("Receiving unconnected local file %s/%s/%S\n", "unconnected", subFolder, name);
    const KelString folder = KelFormat("%S/%s/%s", strModuleDataPath, "unconnected", subFolder);
    const KelString path = KelFormat("%S/%S", folder, name);
    KelString request;
    if (!PathCreate(folder) || !KeepContent(source, path, arguments)) return kKelErrorBadInput;
    if (!arguments.SaveToTempFile(request, folder) || !FileRename(request, path)) {
        FileDelete(request);
        Fail(path);
        return kKelErrorBadInput;
    }
    if (source.move && !source.isFile) FileDelete(source.path);
    return kKelOk;
}

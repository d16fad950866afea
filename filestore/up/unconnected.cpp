#include "filestore/up/unconnected.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/exchange/local_source.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/up/receive_offer.h"
#include "filestore/up/upload_policy.h"
#include "filestore/up/upstream_file.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// The content of an offer to be kept. Unlike for the other receivers, the last of the three paths counts,
/// and a MovePath has the content moved whichever path that is.
struct UnconnectedSource {
    KelString path;
    bool move = false;
    bool isFile = false;  ///< FilePath: any content; otherwise the file is a container as XML
};

UnconnectedSource ReadSource(const KelContainer& arguments) {
    UnconnectedSource source;
    source.move = arguments.Has(kValueMovePath);
    source.isFile = arguments.Has(kValueFilePath);
    for (const char* name : {kValueMovePath, kValueCopyPath, kValueFilePath})
        if (arguments.Has(name)) source.path = arguments.GetString(name);
    return source;
}

bool Fail(const KelString& path) {
    FileStore::debugFileStore.Error(
        "Cannot keep the unconnected file '%S': check it, space and permissions\n", path);
    return false;
}

/// Puts the content where the replay will find it: beside the request, or into it.
bool KeepContent(const UnconnectedSource& source, const KelString& path, FileOffer& request) {
    if (source.isFile) {
        const KelString kept = path + ".xml";
        request.filePath = kept;
        const bool done = source.move ? FileRename(source.path, kept) : FileCopy(source.path, kept, false);
        return done || Fail(source.path);
    }
    KelContainer info;
    if (const KelStatus loaded = info.LoadFromFile(source.path); !loaded) {
        FileStore::debugFileStore.Warning("Refusing the unconnected file '%S': %S\n", source.path,
                                          loaded.Error().message);
        return false;
    }
    request.info = std::move(info);
    return true;
}

/// Under a temporary name first: the replay must not see half a request.
bool KeepRequest(const KelContainer& request, const KelString& folder, const KelString& path) {
    KelString temporary;
    if (request.SaveToTempFile(temporary, folder) && FileRename(temporary, path)) return true;
    FileDelete(temporary);
    return Fail(path);
}

/// What a replayed request brings: FileInfo is itself the content and becomes a file to be moved, FilePath
/// names one to be copied. Replaces both in `arguments` by the path. kKelOk or kKelErrorMissingContent.
unsigned int PrepareSource(KelContainer& arguments, const KelString& type, LocalSource& source) {
    if (arguments.Has(kValueFileInfo)) {
        const KelStatus saved = arguments.GetContainer(kValueFileInfo).SaveToTempFile(source.path);
        if (!saved) {
            FileStore::debugFileStore.Error("Cannot keep an unconnected file of type '%S': %S\n", type,
                                            saved.Error().message);
            return kKelErrorMissingContent;
        }
        arguments.Remove(kValueFileInfo);
        arguments.SetString(kValueMovePath, source.path);
        source.kind = LocalSource::Kind::Move;
        return kKelOk;
    }
    if (!arguments.Has(kValueFilePath)) {
        FileStore::debugFileStore.Warning("Missing info or path for received unconnected file of type '%S'\n",
                                          type);
        return kKelErrorMissingContent;
    }
    source = {LocalSource::Kind::Copy, arguments.GetString(kValueFilePath)};
    arguments.Remove(kValueFilePath);
    arguments.SetString(kValueCopyPath, source.path);
    return kKelOk;
}

/// ReceiveUpstreamRemote expects a PUT, but the content is here already: on the master the file has reached
/// its destination and is handed over, elsewhere it goes on to the parent.
void MarkAsArrived(const KelString& url, const KelString& type) {
    const bool isMaster = ActionDbIsActionRegistered("QuarnelDbObjectListTypes");
    {
        const KelLock lock(FileStore::mutexUpstream);
        const auto file = FindUpstreamFileOfUrl(url);
        if (!file || !file->row) return;
        UpdateFileStatus(Side::Upstream, file->row->FileId,
                         isMaster ? kStatusToBeHandled : kStatusToBeUploaded, NextTry::AtOnce);
    }
    if (!isMaster) WakeToSend(type);
}

unsigned int StoreAndRecord(KelContainer& arguments, const LocalSource& source, Offer& offer) {
    arguments.SetString(kValueFirstRelay, "0");
    const auto known = FindUpstreamFile(offer.key, arguments.GetString(kValueSourceDevice));
    if (!known) return kKelErrorNotAvailable;
    const KelString path = known->Path();
    WaitingReason why;
    if (!PlaceContent(source, path, false, why)) return AnswerNotTaken(arguments, why);
    arguments.SetInt64(kValueFileSize, FileGetSize64(path));  // of the stored content, whatever was announced
    if (offer.key.type == kIdentityFileType) offer.priority = 500;
    const unsigned int result = ReceiveUpstreamRemote(arguments, offer);
    if (result == kKelOk) MarkAsArrived(arguments.GetString(kValueFileUrl), offer.key.type);
    return result;
}

}  // namespace

unsigned int KeepUnconnected(KelContainer& arguments, Offer& offer) {
    const UnconnectedSource source = ReadSource(arguments);
    const std::int64_t size = FileGetSize64(source.path);
    if (!CheckUpstreamSize(source.path, size) || !FillChecksum(source.path, offer.key.checksum))
        return kKelErrorBadInput;
    const KelString guid = arguments.GetString("GUID");
    if (IsUsableGuid(guid) && AdoptGuid(guid))
        FileStore::debugFileStore.Print("Received new GUID %S\n", guid);
    FileOffer request;
    request.key = offer.key;
    request.size = size;
    request.sourceDevice = OurDeviceUrl();

    const char* subFolder = offer.key.type == kIdentityFileType ? "identity" : "inventory";
    FileStore::debugFileStore.Print("Receiving unconnected local file unconnected/%s/%S\n", subFolder,
                                    offer.key.name);
    const KelString folder = KelFormat("%S/unconnected/%s", FileStore::strModuleDataPath, subFolder);
    const KelString path = KelFormat("%S/%S", folder, offer.key.name);
    const bool isContentKept = PathCreate(folder) && KeepContent(source, path, request);
    arguments = request.ToContainer();
    if (!isContentKept || !KeepRequest(arguments, folder, path)) return kKelErrorBadInput;
    if (source.move && !source.isFile) FileDelete(source.path);
    return kKelOk;
}

unsigned int ReceiveUnconnected(KelContainer& arguments) {
    Offer offer;
    offer.key = FileKey::Read(arguments);
    offer.local = true;
    if (!CheckOffer(arguments, offer)) return kKelErrorBadInput;

    LocalSource source;
    if (const unsigned int error = PrepareSource(arguments, offer.key.type, source); error != kKelOk)
        return error;
    const unsigned int result = FillChecksum(source.path, offer.key.checksum)
                                    ? StoreAndRecord(arguments, source, offer)
                                    : kKelErrorBadInput;
    if (source.kind == LocalSource::Kind::Move) FileDelete(source.path);  // still there unless it was moved
    return result;
}

}  // namespace filestore

unsigned int FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(KelContainer* arguments) {
    return filestore::ReceiveUnconnected(*arguments);
}

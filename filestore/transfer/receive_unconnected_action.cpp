#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/local_source.h"
#include "filestore/transfer/offer.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

using filestore::LocalSource;

/// Turns `FileInfo` (itself the content) into a file to be moved, `FilePath` into one to be copied. 0 or the
/// action's result.
unsigned int TakeSource(KelContainer& arguments, const KelString& type, LocalSource& source) {
    if (arguments.Has("FileInfo")) {
        const KelStatus saved = arguments.GetContainer("FileInfo").SaveToTempFile(source.path);
        if (!saved) {
            FileStore::debugFileStore.Error("Cannot keep an unconnected file of type '%S': %S\n", type,
                                            saved.Error().message);
            return kKelErrorMissingContent;
        }
        arguments.Remove("FileInfo");
        arguments.SetString("MovePath", source.path);
        source.kind = LocalSource::Kind::Move;
        return 0;
    }
    if (!arguments.Has("FilePath")) {
        FileStore::debugFileStore.Warning("Missing info or path for received unconnected file of type '%S'\n",
                                          type);
        return kKelErrorMissingContent;
    }
    source = {LocalSource::Kind::Copy, arguments.GetString("FilePath")};
    arguments.Remove("FilePath");
    arguments.SetString("CopyPath", source.path);
    return 0;
}

/// Past the routing function's own status: the content is here already. On the master the file is at its
/// goal and is handed over, elsewhere it goes on to the parent.
void SetNextStatus(const KelString& url) {
    const bool isMaster = ActionDbIsActionRegistered("QuarnelDbObjectListTypes");
    {
        const KelLock lock(FileStore::mutexUpstream);
        const unsigned long fileId = FileStore::FindFileFromUrl(url);
        if (fileId == 0) return;
        filestore::SetFileStatus(true, fileId,
                                 isMaster ? filestore::kStatusToBeHandled : filestore::kStatusToBeUploaded,
                                 filestore::TakenUp::AtOnce);
    }
    if (!isMaster && !FileStore::fConcatFiles) FileStore::threadPush.WakeUp();
}

int StoreAndRecord(KelContainer& arguments, const LocalSource& source, filestore::Offer& offer) {
    arguments.SetString("FirstRelay", "0");
    arguments.Remove("FileURL");  // it is served from this store
    const KelString path = FileStore::StorePath(true, offer.type, offer.label, offer.checksum, offer.name);
    const KelString folder = FileStore::StoreFolder(true, offer.type, offer.label, offer.checksum);
    if (!filestore::PlaceContent(source, folder, path, false)) return 1;
    arguments.SetInt64("FileSize", FileGetSize64(path));  // of the content as it is stored, not as announced
    const unsigned int priority = offer.type == "IdentityIdentity" ? 500 : 100;
    const int result = FileStore::ReceiveUpstreamRemoteFile(arguments, offer.type, offer.label, offer.name,
                                                            offer.checksum, 0, false, 0, priority);
    if (result == 0)
        SetNextStatus(FileStore::StoreUrl(true, offer.type, offer.label, offer.checksum, offer.name));
    return result;
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(KelContainer* arguments) {
    filestore::Offer offer;
    offer.type = arguments->GetString("FileType");
    offer.label = arguments->GetString("FileLabel");
    offer.name = arguments->GetString("FileName");
    offer.checksum = arguments->GetString("FileChecksum");
    offer.local = true;
    if (!filestore::CheckOffer(*arguments, offer)) return 1;

    LocalSource source;
    if (const unsigned int error = TakeSource(*arguments, offer.type, source); error != 0) return error;
    const int result =
        filestore::FillChecksum(source.path, offer.checksum) ? StoreAndRecord(*arguments, source, offer) : 1;
    if (source.kind == LocalSource::Kind::Move) FileDelete(source.path);  // still there unless it was moved
    return static_cast<unsigned int>(result);
}

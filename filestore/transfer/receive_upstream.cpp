#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/local_source.h"
#include "filestore/transfer/offer.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

/// A package that an administrated relay hands on keeps the device it came from; anything else is ours.
KelString SourceDevice(const KelContainer& arguments) {
    const KelContainer& info = arguments.GetContainer("FileInfo");
    if (!info.GetString("AdministratedRelayGUID").empty() && info.GetInt32("AdministratedRelayID") == 0)
        return arguments.GetString("SourceDevice");
    KelString own;
    FileStore::GetOurDeviceGUID(own, true);
    return own;
}

/// Has an available copy of a known file handled again. The caller holds mutexUpstream.
void HandleAgain(unsigned long fileId) {
    FileStore::pDbConnectionUpstream->Query(KelFormat("UPDATE %s SET %s='%s' WHERE %s=%lu AND %s='%s'",
                                                      kTableFiles, kFileStatus, kStatusToBeHandled, kFileId,
                                                      fileId, kFileStatus, kStatusAvailable));
}

/// True when the file was known already.
bool HandleKnownFile(const FileStoreEntry& entry) {
    const KelLock lock(FileStore::mutexUpstream);
    const unsigned long fileId =
        FileStore::FindFileInDatabase(*FileStore::pDbConnectionUpstream, entry.FileType, entry.FileLabel,
                                      entry.FileName, entry.FileChecksum);
    if (fileId != 0) HandleAgain(fileId);
    return fileId != 0;
}

/// Creates the record unless another call has just done so.
bool Record(FileStoreEntry& entry) {
    const KelLock lock(FileStore::mutexUpstream);
    return HandleKnownFile(entry) || entry.CreateInDatabase(true) != 0;
}

/// Marks the row of `url` as being received again; false when there is none.
bool ReceiveAgain(const KelString& url) {
    const KelLock lock(FileStore::mutexUpstream);
    const unsigned long fileId = FileStore::FindFileFromUrl(url);
    if (fileId == 0) return false;
    FileStore::pDbConnectionUpstream->Query(KelFormat("UPDATE %s SET %s='%s', %s='%s' WHERE %s=%lu",
                                                      kTableFiles, kFileStatus, kStatusReceiving,
                                                      kTransportMode, kTransportUnicast, kFileId, fileId));
    return true;
}

}  // namespace

int FileStore::ReceiveUpstreamLocalFile(KelContainer& arguments, const KelString& type,
                                        const KelString& label, const KelString& name, KelString& checksum,
                                        unsigned int keepCopy, bool bypass, unsigned int /*wakeOnLan*/,
                                        unsigned int priority) {
    LocalSource source = ReadLocalSource(arguments);
    if (!FillChecksum(source, checksum)) return kKelErrorBadInput;
    const KelString path = StorePath(true, type, label, checksum, name);
    FileStoreEntry entry = OfferedEntry(type, label, name, checksum, keepCopy, bypass, priority);
    entry.ExternalFile = source.kind == LocalSource::Kind::External;
    entry.FilePath = entry.ExternalFile ? source.path : path;
    entry.FileSize = ContentSize(source, path);
    entry.Upstream = true;
    entry.FileStatus = kStatusToBeHandled;
    entry.TransportMode = kTransportLocal;
    entry.SourceDevice = ::SourceDevice(arguments);
    entry.FileInfo = FileInfoXml(arguments);
    debugFileStore.Print("Receiving upstream local file %S/%S/%S\n", type, label, name);
    arguments.Clear();

    if (HandleKnownFile(entry)) {
        RemoveMovedSource(source, path);
        threadHandler.WakeUp();
        return kKelOk;
    }
    if (!CheckUpstreamSize(source.path, entry.FileSize) ||
        !PlaceContent(source, StoreFolder(true, type, label, checksum), path, false))
        return kKelErrorBadInput;
    entry.FileSize = FileGetSize64(entry.FilePath);  // its owner may have cut it off meanwhile
    if (!CheckUpstreamSize(entry.FilePath, entry.FileSize) || !Record(entry)) return kKelErrorBadInput;
    RemoveMovedSource(source, path);
    threadHandler.WakeUp();
    return kKelOk;
}

int FileStore::ReceiveUpstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                         const KelString& label, const KelString& name, KelString& checksum,
                                         unsigned int keepCopy, bool bypass, unsigned int /*wakeOnLan*/,
                                         unsigned int priority) {
    FileStoreEntry entry = OfferedEntry(type, label, name, checksum, keepCopy, bypass, priority);
    entry.FileSize = arguments.GetInt64("FileSize");
    entry.SourceDevice = arguments.GetString("SourceDevice");
    entry.FirstRelay = arguments.GetString("FirstRelay");
    entry.FileInfo = FileInfoXml(arguments);
    debugFileStore.Print("Receiving upstream remote file %S/%S/%S\n", type, label, name);
    if (!entry.SourceDevice.empty() && !CheckGuidScheme(entry.SourceDevice)) {
        debugFileStore.Warning("The GUID scheme of sender is not valid\n");
        return kKelErrorGuidScheme;
    }
    entry.FileURL = arguments.GetString("FileURL");
    if (entry.FileURL.empty()) entry.FileURL = StoreUrl(true, type, label, checksum, name);
    if (entry.FileSize == 0) return kKelErrorBadInput;
    if (!PathCreate(StoreFolder(true, type, label, checksum)))
        debugFileStore.Warning("Cannot make the folder of %S/%S/%S\n", type, label, name);
    if (entry.FirstRelay.empty()) GetOurDeviceGUID(entry.FirstRelay, true);
    entry.FilePath = StorePath(true, type, label, checksum, name);
    entry.Upstream = true;
    entry.TransportMode = kTransportUnicast;
    entry.FileStatus = kStatusReceiving;
    {
        const KelLock lock(mutexUpstream);
        if (!ReceiveAgain(entry.FileURL) && entry.CreateInDatabase(true) == 0) return kKelErrorBadInput;
    }
    arguments.Clear();
    arguments.SetString("FileURL", entry.FileURL);
    return kKelOk;
}

#include "filestore/up/receive_offer.h"

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/local_source.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// A package that an administrated relay passes on keeps the device it came from; anything else is ours.
KelString SourceDevice(const KelContainer& arguments) {
    const KelContainer& info = arguments.GetContainer(kValueFileInfo);
    if (!info.GetString("AdministratedRelayGUID").empty() && info.GetInt32("AdministratedRelayID") == 0)
        return arguments.GetString(kValueSourceDevice);
    return OurDeviceUrl();
}

FileStoreEntry LocalEntry(const KelContainer& arguments, const Offer& offer, const LocalSource& source,
                          const KelString& path) {
    FileStoreEntry entry = offer.ToEntry();
    entry.ExternalFile = source.kind == LocalSource::Kind::External;
    entry.FilePath = entry.ExternalFile ? source.path : path;
    entry.FileSize = ContentSize(source, path);
    entry.Upstream = true;
    entry.FileStatus = kStatusToBeHandled;
    entry.TransportMode = kTransportLocal;
    entry.SourceDevice = SourceDevice(arguments);
    entry.FileInfo = FileInfoXml(arguments);
    return entry;
}

/// Has a known file handed to the consumers again if it is available; false when the file is unknown.
bool HandleAgainIfKnown(const FileKey& key) {
    const KelLock lock(FileStore::mutexUpstream);
    const std::uint64_t fileId = FindFileInDatabase(Side::Upstream, key);
    if (fileId != 0) HandleAvailableAgain(fileId);
    return fileId != 0;
}

/// Places the content and creates the row. Without the lock while the content is copied: another offer of the
/// same file may have created the row by then.
bool PlaceAndRecord(const LocalSource& source, const KelString& path, FileStoreEntry& entry) {
    if (!CheckUpstreamSize(source.path, entry.FileSize) || !PlaceContent(source, path, false)) return false;
    entry.FileSize = FileGetSize64(entry.FilePath);  // its owner may have truncated it in the meantime
    if (!CheckUpstreamSize(entry.FilePath, entry.FileSize)) return false;
    const KelLock lock(FileStore::mutexUpstream);
    return HandleAgainIfKnown(entry.Key()) || entry.CreateInDatabase(Side::Upstream) != 0;
}

/// Expects the content by PUT: under the row that has the URL already, otherwise under a new one.
bool Expect(FileStoreEntry& entry) {
    const KelLock lock(FileStore::mutexUpstream);
    const std::uint64_t fileId = FindFileFromUrl(entry.FileURL);
    if (fileId == 0) return entry.CreateInDatabase(Side::Upstream) != 0;
    SetReceivingAgain(fileId);
    return true;
}

}  // namespace

unsigned int ReceiveUpstreamLocal(KelContainer& arguments, Offer& offer) {
    LocalSource source = ReadLocalSource(arguments);
    if (!FillChecksum(source, offer.key.checksum)) return kKelErrorBadInput;
    const KelString path = FileStore::StorePath(Side::Upstream, offer.key);
    FileStoreEntry entry = LocalEntry(arguments, offer, source, path);
    FileStore::debugFileStore.Print("Receiving upstream local file %S\n", offer.key.Text());
    arguments.Clear();

    if (!HandleAgainIfKnown(offer.key) && !PlaceAndRecord(source, path, entry)) return kKelErrorBadInput;
    RemoveMovedSource(source, path);
    FileStore::WakeWorker(Worker::Handler);
    return kKelOk;
}

unsigned int ReceiveUpstreamRemote(KelContainer& arguments, Offer& offer) {
    FileStoreEntry entry = offer.ToEntry();
    entry.FileSize = arguments.GetInt64(kValueFileSize);
    entry.SourceDevice = arguments.GetString(kValueSourceDevice);
    entry.FirstRelay = arguments.GetString(kValueFirstRelay);
    entry.FileInfo = FileInfoXml(arguments);
    FileStore::debugFileStore.Print("Receiving upstream remote file %S\n", offer.key.Text());
    if (!entry.SourceDevice.empty() && !FileStore::CheckGuidScheme(entry.SourceDevice)) {
        FileStore::debugFileStore.Warning("The GUID scheme of sender is not valid\n");
        return kKelErrorGuidScheme;
    }
    entry.FileURL = arguments.GetString(kValueFileUrl);
    if (entry.FileURL.empty()) entry.FileURL = StoredUrl(Side::Upstream, offer.key);
    if (entry.FileSize == 0) return kKelErrorBadInput;
    if (!PathCreate(FileStore::StoreFolder(Side::Upstream, offer.key)))
        FileStore::debugFileStore.Warning("Cannot make the folder of %S\n", offer.key.Text());
    if (entry.FirstRelay.empty()) entry.FirstRelay = OurDeviceUrl();
    entry.FilePath = FileStore::StorePath(Side::Upstream, offer.key);
    entry.Upstream = true;
    entry.TransportMode = kTransportUnicast;
    entry.FileStatus = kStatusReceiving;
    if (!Expect(entry)) return kKelErrorBadInput;
    arguments.Clear();
    arguments.SetString(kValueFileUrl, entry.FileURL);
    return kKelOk;
}

}  // namespace filestore

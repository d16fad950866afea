#include "filestore/up/receive_offer.h"

#include <algorithm>

#include "filestore/db/callback_table.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/local_source.h"
#include "filestore/state/caller.h"
#include "filestore/state/contact.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/store_space.h"
#include "filestore/up/archive_intake.h"
#include "filestore/up/upload_check.h"
#include "filestore/up/upload_senders.h"
#include "filestore/up/upstream_file.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/transfer_counters.h"

namespace filestore {

namespace {

/// Under which FileStore::failures knows that folders of the store cannot be made.
constexpr const char* kFolderFailure = "offered folder";
/// The same of space.
constexpr const char* kSpaceFailure = "offered space";

/// A package that an administrated relay passes on keeps the device it came from; anything else is ours.
KelString SourceDevice(const KelContainer& arguments) {
    const KelContainer& info = arguments.GetContainer(kValueFileInfo);
    if (!info.GetString("AdministratedRelayGUID").empty() && info.GetInt32("AdministratedRelayID") == 0)
        return arguments.GetString(kValueSourceDevice);
    return OurDeviceUrl();
}

FileStoreEntry LocalEntry(const KelContainer& arguments, const Offer& offer, const LocalSource& source) {
    FileStoreEntry entry = offer.ToEntry();
    entry.ExternalFile = source.kind == LocalSource::Kind::External;
    entry.Upstream = true;
    entry.FileStatus = kStatusToBeHandled;
    entry.TransportMode = kTransportLocal;
    entry.SourceDevice = SourceDevice(arguments);
    entry.FileInfo = FileInfoXml(arguments);
    return entry;
}

/// Puts the content of `entry` in its place; false, logged, when it is not there afterwards.
bool Place(const LocalSource& source, const KelString& path, FileStoreEntry& entry, WaitingReason& why) {
    entry.FilePath = entry.ExternalFile ? source.path : path;
    if (!CheckUpstreamSize(source.path, ContentSize(source, path)) || !PlaceContent(source, path, false, why))
        return false;
    entry.FileSize = FileGetSize64(entry.FilePath);  // its owner may have truncated it in the meantime
    return CheckUpstreamSize(entry.FilePath, entry.FileSize);
}

/// Under the row that the file has already, otherwise under a new one.
bool Record(const UpstreamFile& known, FileStoreEntry& entry) {
    if (known.HasContent()) return HandleAgain(known.row->FileId);
    if (!known.row) return entry.CreateInDatabase(Side::Upstream) != 0;
    entry.FileId = known.row->FileId;
    entry.CreateTime = known.row->CreateTime;
    return entry.SaveToDatabase(Side::Upstream);
}

/// Removes what an offer that failed has put at `path`, unless another device's row has got that place.
bool GiveUp(const LocalSource& source, const FileStoreEntry& entry, const KelString& path) {
    const KelLock lock(FileStore::mutexUpstream);
    const auto file = FindUpstreamFile(entry.Key(), entry.SourceDevice);
    if (file && !file->row && file->Path() == path) RemovePlaced(source, path);
    return false;
}

/// Brings the content of an offer into the store and has it handed to the consumers. A known file keeps its
/// content; one that is known but not here, because it is only expected or was lost, gets it. `path` receives
/// where the content lies; `why`: see PlaceContent.
bool PlaceAndRecord(const LocalSource& source, FileStoreEntry& entry, KelString& path, WaitingReason& why) {
    // Content is copied without the lock. In the meantime another device may have offered the same file and
    // got the place; then the content is put into the next one.
    KelFileLease inUse;
    for (KelString placed;;) {
        {
            const KelLock lock(FileStore::mutexUpstream);
            const auto known = FindUpstreamFile(entry.Key(), entry.SourceDevice);
            if (!known) return false;
            path = known->HasContent() ? ContentPath(*known->row, Side::Upstream) : known->Path();
            // An equal offer that failed meanwhile may have removed what was placed.
            const bool isPlaced = path == placed && (entry.ExternalFile || FileExists(path));
            if (known->HasContent() || isPlaced) return Record(*known, entry) || GiveUp(source, entry, path);
        }
        inUse = KelFileLease(path);
        if (!Place(source, path, entry, why)) return GiveUp(source, entry, path);
        placed = path;
    }
}

/// A file that was received and is still to be moved on: receiving it again would only hold it up. To a
/// repeated offer also one that has moved on.
bool IsReceived(const UpstreamFile& file, bool repeated) {
    if (!file.HasContent()) return false;
    if (repeated) return file.row->FileStatus != kStatusReceiving;
    const auto statuses = {kStatusToBeHandled, kStatusToBeUploaded, kStatusToBePacked, kStatusUploading};
    return std::any_of(statuses.begin(), statuses.end(),
                       [&file](const char* status) { return file.row->FileStatus == status; });
}

/// Expects the content by PUT: under the row that the file has already, otherwise under a new one.
/// `isReceived` says that the file is here already.
unsigned int Expect(FileStoreEntry& entry, bool& isReceived) {
    const KelLock lock(FileStore::mutexUpstream);
    const auto known = FindUpstreamFile(entry.Key(), entry.SourceDevice);
    if (!known) return kKelErrorNotAvailable;
    entry.FilePath = known->Path();
    entry.FileURL = known->Url();
    if (!PathCreate(known->Folder())) {
        FileStore::failures.Failed(
            KelDebugLevel::Warning, kFolderFailure,
            KelFormat("Refusing the offer of %S: cannot make the folder %S; check space and permissions",
                      entry.Key().Text(), known->Folder()));
        return kKelErrorNotAvailable;
    }
    FileStore::failures.Succeeded(kFolderFailure, "Folders of offered files can be made again");
    isReceived = IsReceived(*known, entry.Repeated);
    const bool recorded = isReceived || (known->row ? SetReceivingAgain(known->row->FileId, entry.FileSize,
                                                                        entry.FileURL, entry.Repeated)
                                                    : entry.CreateInDatabase(Side::Upstream) != 0);
    return recorded ? kKelOk : kKelErrorNotAvailable;
}

/// True when the content of a repeated offer, whose row was lost, lies in its place: it has arrived then.
/// Reads the whole file: hold no lock.
bool HasArrivedBefore(const FileStoreEntry& entry) {
    const KelFileLease inUse(entry.FilePath);
    if (!FileExists(entry.FilePath) || CheckUpload(entry.FileURL, entry.FilePath) != kKelOk ||
        !EnqueueArrivedFile(entry.FileURL))
        return false;
    FileStore::WakeWorker(Worker::Callback);
    return true;
}

/// False, logged, when the store may not take so much: the sender offers the file again later.
bool HasRoomForOffered(const FileStoreEntry& entry) {
    std::uint64_t room = 0;
    if (!IsSpaceLimited() || SpaceFor(FileStore::StoreFolder(Side::Upstream, entry.Key()), room) != 0 ||
        static_cast<std::uint64_t>(entry.FileSize) <= room) {
        FileStore::failures.Succeeded(kSpaceFailure, "There is room for offered files again");
        return true;
    }
    FileStore::failures.Failed(
        KelDebugLevel::Error, kSpaceFailure,
        KelFormat("Refusing the offer of %S: it has %ld bytes, and there is room for %lu; make room in %S",
                  entry.Key().Text(), entry.FileSize, room, FileStore::strStorageLocationToUse));
    return false;
}

}  // namespace

unsigned int ReceiveUpstreamLocal(KelContainer& arguments, Offer& offer) {
    LocalSource source = ReadLocalSource(arguments);
    if (!FillChecksum(source, offer.key.checksum)) {
        arguments.SetString(
            "Message", KelFormat("The file %S does not exist, or the agent may not read it", source.path));
        return kKelErrorBadInput;
    }
    FileStoreEntry entry = LocalEntry(arguments, offer, source);
    FileStore::debugFileStore.Print("Receiving upstream local file %S\n", offer.key.Text());
    arguments.Clear();

    KelString path;
    WaitingReason why;
    if (!PlaceAndRecord(source, entry, path, why)) return AnswerNotTaken(arguments, why);
    KelTransfers(KelDirection::Up, KelFlow::In, KelTransport::Local)
        .AddFile(static_cast<std::uint64_t>(std::max<std::int64_t>(entry.FileSize, 0)));
    RemoveMovedSource(source, path);
    FileStore::WakeWorker(Worker::Handler);
    return kKelOk;
}

unsigned int ReadUpstreamRemote(const KelContainer& arguments, const Offer& offer, FileStoreEntry& entry) {
    entry = offer.ToEntry();
    entry.FileSize = arguments.GetInt64(kValueFileSize);
    entry.SourceDevice = arguments.GetString(kValueSourceDevice);
    entry.FirstRelay = arguments.GetString(kValueFirstRelay);
    entry.FileInfo = FileInfoXml(arguments);
    FileStore::debugFileStore.Print("Receiving upstream remote file %S\n", offer.key.Text());
    if (!entry.SourceDevice.empty() && !FileStore::CheckGuidScheme(entry.SourceDevice)) {
        FileStore::debugFileStore.Warning("The GUID scheme of sender is not valid\n");
        return kKelErrorGuidScheme;
    }
    // What comes straight from a device is its own; what a relay passes on is from a device below it.
    const bool mayPassOn = CallOriginOf(arguments).mayPassOn;
    const bool isPassedOn = !entry.FirstRelay.empty() && mayPassOn;
    if (!isPassedOn && !CheckIsCallOf(arguments, entry.SourceDevice)) return kKelErrorBadInput;
    if (entry.FirstRelay.empty()) NoteSignOfLife(entry.SourceDevice);
    if (entry.FileSize == 0) return kKelErrorBadInput;
    if (entry.FirstRelay.empty()) entry.FirstRelay = OurDeviceUrl();
    if (entry.FileType == kPackedFilesType && !mayPassOn) entry.FileInfo = InfoOfOwnFiles();
    entry.Upstream = true;
    entry.TransportMode = kTransportUnicast;
    entry.FileStatus = kStatusReceiving;
    return kKelOk;
}

unsigned int ReceiveUpstreamRemote(KelContainer& arguments, Offer& offer) {
    FileStoreEntry entry;
    if (const unsigned int error = ReadUpstreamRemote(arguments, offer, entry); error != kKelOk) return error;
    if (!HasRoomForOffered(entry)) return kKelErrorNotAvailable;
    bool isReceived = false;
    if (const unsigned int error = Expect(entry, isReceived); error != kKelOk) return error;
    NoteUploadSender(entry.FileURL, arguments);
    arguments.Clear();
    arguments.SetString(kValueFileUrl, entry.FileURL);
    if (entry.Repeated && (isReceived || HasArrivedBefore(entry))) arguments.SetBool(kValueContentHeld, true);
    arguments.SetBool(kValueTakesContents, true);
    return kKelOk;
}

}  // namespace filestore

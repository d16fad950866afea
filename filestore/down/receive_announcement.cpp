#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/multicast_calls.h"
#include "filestore/down/receive_offer.h"
#include "filestore/down/target_list.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

struct MulticastOffer {
    KelString address;
    unsigned int port = 0;
    unsigned int blockSize = 0;
    bool IsUsable() const { return port != 0 && !address.empty(); }
};

/// What an announcement says, apart from the arguments that carried it.
struct Announcement {
    FileStoreEntry file;
    MulticastOffer multicast;
    KelString transportMode;
    unsigned int wakeOnLan = 0;
    KelContainer devicePath;
};

enum class Recorded : unsigned char { Failed, Unchanged, ToBeDownloaded };

Announcement ReadAnnouncement(const KelContainer& arguments, const Offer& offer) {
    Announcement read;
    read.file = offer.ToEntry();
    read.file.FileURL = arguments.GetString(kValueFileUrl);
    read.file.FileSize = arguments.GetInt64(kValueFileSize);
    read.file.SourceDevice = arguments.GetString(kValueSourceDevice);
    read.file.FileInfo = FileInfoXml(arguments);
    read.multicast = {arguments.GetString(kValueMulticastAddress),
                      static_cast<unsigned int>(arguments.GetInt32(kValueMulticastPort)),
                      static_cast<unsigned int>(arguments.GetInt32(kValueMulticastBlockSize))};
    read.transportMode = arguments.GetString(kValueTransportMode);
    read.wakeOnLan = offer.wakeOnLan;
    read.devicePath = arguments.GetContainer(kValueDevicePath);
    return read;
}

bool IsComplete(const FileStoreEntry& entry) {
    const KelString path = ContentPath(entry, Side::Downstream);
    return !entry.FileChecksum.empty() && FileExists(path) && FileGetSize64(path) == entry.FileSize;
}

void SetTransport(FileStoreEntry& known, const Announcement& announced) {
    // What has arrived by unicast has no gaps, as often as the file is announced meanwhile.
    const bool isUnicastUnderWay = known.FileStatus == kStatusDownloading &&
                                   known.TransportMode == kTransportUnicast && known.TransferredBytes != 0;
    known.MulticastTransferToBeStarted = 0;
    known.MulticastAddress = announced.multicast.address;
    known.MulticastPort = announced.multicast.port;
    known.MulticastBlockSize = announced.multicast.blockSize;
    known.TransportMode = kTransportUnicast;
    if (announced.multicast.IsUsable()) {
        known.TransportMode = kTransportMulticast;
    } else if (announced.transportMode == kTransportMulticast && !isUnicastUnderWay) {
        // What a failed multicast reception has left has gaps: nothing of it counts as transferred.
        known.TransferredBytes = 0;
        known.TransportMode = kTransportUnicastRecovery;
    }
}

/// Nothing of an announcement changes a file that is here, its targets included.
bool IsHere(const FileStoreEntry& known) {
    if (known.FileStatus == kStatusAvailable) return true;
    return (known.FileStatus == kStatusNotRelaysChild || known.FileStatus == kStatusObsolete) &&
           IsComplete(known);
}

/// Has the known file downloaded as the new announcement says.
void SetToBeDownloaded(FileStoreEntry& known, const Announcement& announced) {
    known.FileURL = announced.file.FileURL;
    known.FileInfo = SignedOne(known.FileInfo, announced.file.FileInfo);
    // It is not known of a requested file.
    if (announced.file.FileSize > 0) known.FileSize = announced.file.FileSize;
    if (known.FileChecksum.empty()) {  // it was requested without one
        known.FileChecksum = announced.file.FileChecksum;
        known.FilePath = FileStore::StorePath(Side::Downstream, known.Key());
    }
    // The status time of a request that was waiting for its answer must not delay the download.
    if (known.FileStatus == kStatusToBeRequested || known.FileStatus == kStatusMissing)
        known.LastStatusChangeTime = 0;
    SetTransport(known, announced);
    known.FileStatus = kStatusDownloading;
    known.KeepCopy = announced.file.KeepCopy;
    known.Bypass = announced.file.Bypass;
    known.Priority = announced.file.Priority;
}

/// Has a known file that is not here yet downloaded, and delivered to the announced targets as well as to
/// those that it has already. One whose bytes are here, but are not verified, needs no transfer.
Recorded UpdateKnown(FileStoreEntry& known, const Announcement& announced,
                     const KelVector<FileStoreTarget>& targets) KEL_REQUIRES(FileStore::mutexDownstream) {
    FileStore::debugFileStore.Trace("File %S exists in datababase with status %S.\n", known.FileName,
                                    known.FileStatus);
    const bool isComplete = IsComplete(known);
    if (IsHere(known) || isComplete) FileStore::debugFileStore.Trace("Available file is notified again.\n");
    if (IsHere(known)) return Recorded::Unchanged;
    const auto waiting = FindTargets(known.FileId);
    if (!waiting) return Recorded::Failed;
    const KelVector<FileStoreTarget> changed = MergeTargets(*waiting, targets);
    if (isComplete && changed.empty()) return Recorded::Unchanged;
    known.Acknowledged = false;
    if (!isComplete) SetToBeDownloaded(known, announced);
    return SaveFileWithTargets(known, changed) ? Recorded::ToBeDownloaded : Recorded::Failed;
}

FileStoreEntry NewEntry(const Announcement& announced) {
    FileStoreEntry entry = announced.file;
    entry.FilePath = FileStore::StorePath(Side::Downstream, entry.Key());
    entry.FileStatus = kStatusDownloading;
    entry.TransportMode = kTransportUnicast;
    if (announced.multicast.IsUsable()) {
        entry.MulticastAddress = announced.multicast.address;
        entry.MulticastPort = announced.multicast.port;
        entry.MulticastBlockSize = announced.multicast.blockSize;
        entry.TransportMode = kTransportMulticast;
    }
    return entry;
}

/// Loads the row that the announced file has, or that waits for any file of its name, unless a client has
/// requested that which is not among the devices that the file is for.
bool LoadKnown(const Announcement& announced, FileStoreEntry& entry)
    KEL_REQUIRES(FileStore::mutexDownstream) {
    if (!LoadKnownFile(Side::Downstream, entry)) return false;
    if (!entry.FileChecksum.empty()) return true;
    const KelString client = FileInfoOf(entry).GetString(kRequestedFor);
    return client.empty() || IsPublishedFor(FileInfoOf(announced.file), client);
}

Recorded Record(const Announcement& announced) {
    // Making the targets asks local actions: no lock may be held. What is known of the file counts as it is
    // afterwards.
    const auto targets = TargetsOf(announced.wakeOnLan, announced.devicePath);
    if (!targets) return Recorded::Failed;

    const KelLock lock(FileStore::mutexDownstream);
    FileStoreEntry entry = announced.file;
    if (LoadKnown(announced, entry)) return UpdateKnown(entry, announced, *targets);
    entry = NewEntry(announced);
    return SaveFileWithTargets(entry, *targets) ? Recorded::ToBeDownloaded : Recorded::Failed;
}

}  // namespace

unsigned int ReceiveDownstreamRemote(KelContainer& arguments, Offer& offer) {
    const Announcement announced = ReadAnnouncement(arguments, offer);
    const FileKey& key = offer.key;
    FileStore::debugFileStore.Print("Receiving downstream remote file %S/%S/%S\n", key.type, key.label,
                                    key.name);
    FileStore::debugFileStore.Trace("Transfer mode : %S, %u, %u\n", announced.multicast.address,
                                    announced.multicast.port, announced.multicast.blockSize);
    arguments.Clear();
    if (!PathCreate(FileStore::StoreFolder(Side::Downstream, key)))
        FileStore::failures.Failed(
            KelDebugLevel::Warning, "announced folder",
            KelFormat("Cannot make the folder of %S: check space and permissions", key.Text()));
    else
        FileStore::failures.Succeeded("announced folder", "Folders of announced files can be made again");

    const Recorded recorded = Record(announced);
    if (recorded == Recorded::Failed) return kKelErrorBadInput;
    if (recorded == Recorded::ToBeDownloaded) FileStore::WakeWorker(Worker::Pull);
    FileStore::debugFileStore.Detail("Received downstream remote file %S/%S/%S\n", key.type, key.label,
                                     key.name);
    return kKelOk;
}

}  // namespace filestore

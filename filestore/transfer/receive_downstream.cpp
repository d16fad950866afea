#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/local_source.h"
#include "filestore/transfer/offer.h"
#include "filestore/transfer/target_list.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

/// Loads the row of the entry's key over the entry; false when the file is unknown. The caller holds
/// mutexDownstream when it goes on to write.
bool LoadKnown(FileStoreEntry& entry) {
    const unsigned long fileId =
        FileStore::FindFileInDatabase(*FileStore::pDbConnectionDownstream, entry.FileType, entry.FileLabel,
                                      entry.FileName, entry.FileChecksum);
    return fileId != 0 && entry.LoadFromDatabase(fileId, false);
}

bool RunAll(const KelVector<KelString>& statements) {
    for (const KelString& statement : statements)
        if (FileStore::pDbConnectionDownstream->Query(statement) == nullptr) return false;
    return true;
}

struct MulticastOffer {
    KelString address;
    unsigned int port = 0;
    unsigned int blockSize = 0;
    bool IsUsable() const { return port != 0 && !address.empty(); }
};

MulticastOffer ReadMulticast(const KelContainer& arguments) {
    return {arguments.GetString("MulticastAddress"),
            static_cast<unsigned int>(arguments.GetInt32("MulticastPort")),
            static_cast<unsigned int>(arguments.GetInt32("MulticastBlockSize"))};
}

/// Creates the record and its targets, both or neither. The caller holds mutexDownstream.
bool CreateWithTargets(FileStoreEntry& entry, const KelVector<KelString>& targets) {
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return entry.CreateInDatabase(false) != 0 && RunAll(targets) && transaction.Commit();
}

bool LiesComplete(const FileStoreEntry& entry) {
    return FileExists(entry.FilePath) && FileGetSize64(entry.FilePath) == entry.FileSize;
}

enum class Announced { Failed, Unchanged, ToBeDownloaded };

/// Takes a known file up again as the new offer asks for it. The caller holds mutexDownstream.
Announced TakeUpAgain(FileStoreEntry& known, const FileStoreEntry& offered, const MulticastOffer& multicast,
                      const KelString& transportMode) {
    FileStore::debugFileStore.Trace("File %S exists in datababase with status %S.\n", known.FileName,
                                    known.FileStatus);
    if (known.FileStatus == kStatusAvailable || LiesComplete(known)) {
        FileStore::debugFileStore.Trace("Available file is notified again.\n");
        return Announced::Unchanged;
    }
    known.FileURL = offered.FileURL;
    if (known.FileChecksum.empty()) {  // it was asked for without one
        known.FileChecksum = offered.FileChecksum;
        known.FilePath =
            FileStore::StorePath(false, known.FileType, known.FileLabel, known.FileChecksum, known.FileName);
    }
    // The time of a request that was waiting for an answer; the download does not wait for it.
    if (known.FileStatus == kStatusToBeRequested || known.FileStatus == kStatusMissing)
        known.LastStatusChangeTime = 0;
    known.FileStatus = kStatusDownloading;
    known.KeepCopy = offered.KeepCopy;
    known.Bypass = offered.Bypass;
    known.Priority = offered.Priority;
    known.MulticastTransferToBeStarted = false;
    known.MulticastAddress = multicast.address;
    known.MulticastPort = multicast.port;
    known.MulticastBlockSize = multicast.blockSize;
    known.TransportMode = kTransportUnicast;
    if (multicast.IsUsable()) {
        known.TransportMode = kTransportMulticast;
    } else if (transportMode == kTransportMulticast) {
        known.TransferredBytes = 0;
        known.TransportMode = kTransportUnicastRecovery;
    }
    return known.SaveToDatabase(false) ? Announced::ToBeDownloaded : Announced::Failed;
}

FileStoreEntry AnnouncedEntry(const FileStoreEntry& offered, const MulticastOffer& multicast) {
    FileStoreEntry entry = offered;
    entry.FilePath =
        FileStore::StorePath(false, entry.FileType, entry.FileLabel, entry.FileChecksum, entry.FileName);
    entry.FileStatus = kStatusDownloading;
    entry.TransportMode = kTransportUnicast;
    if (multicast.IsUsable()) {
        entry.MulticastAddress = multicast.address;
        entry.MulticastPort = multicast.port;
        entry.MulticastBlockSize = multicast.blockSize;
        entry.TransportMode = kTransportMulticast;
    }
    return entry;
}

/// What a row says once its content is in place.
void SetAvailable(FileStoreEntry& entry, const FileStoreEntry& offered) {
    entry.FileSize = offered.FileSize;
    entry.FileChecksum = offered.FileChecksum;
    entry.FileURL = offered.FileURL;
    entry.FilePath = offered.FilePath;
    entry.ExternalFile = offered.ExternalFile;
    entry.Upstream = false;
    entry.Bypass = offered.Bypass;
    entry.KeepCopy = offered.KeepCopy;
    entry.Priority = offered.Priority;
    entry.Acknowledged = true;
    entry.FileInfo = offered.FileInfo;
    entry.MulticastTransferToBeStarted = false;
    entry.TransportMode = kTransportLocal;
    entry.FileStatus = kStatusAvailable;
}

/// A local offer while its content is brought into the store, which takes long and needs no lock.
struct Reception {
    FileStoreEntry before;  ///< the row as the offer found or made it
    bool isNew = false;     ///< made for this offer
    bool WasAvailable() const { return before.FileStatus == kStatusAvailable; }
};

/// Sets the row of the file, made when it is unknown, to "receiving", so that no thread takes it up
/// meanwhile. An available file stays so: it is served all along. False when the database failed.
bool Begin(Reception& reception, const FileStoreEntry& offered) {
    FileStoreEntry& row = reception.before;
    const KelLock lock(FileStore::mutexDownstream);
    row = offered;
    reception.isNew = !LoadKnown(row);
    if (reception.isNew) {
        row.FileStatus = kStatusReceiving;
        return row.CreateInDatabase(false) != 0;
    }
    return reception.WasAvailable() ||
           SetFileStatus(false, row.FileId, row.FileStatus, kStatusReceiving, TakenUp::AtOnce);
}

/// Makes the file available with its targets: all or nothing. What others have written to the row since it
/// was begun stays, but for what the offer says.
bool Complete(const Reception& reception, FileStoreEntry& offered, const KelVector<KelString>& targets) {
    const KelLock lock(FileStore::mutexDownstream);
    if (!offered.ExternalFile) offered.FileSize = FileGetSize64(offered.FilePath);
    FileStoreEntry entry;
    if (offered.FileSize < 0 || !entry.LoadFromDatabase(reception.before.FileId, false)) {
        FileStore::debugFileStore.Warning(
            "%S or its row was removed while the file was taken in: offer it again\n", offered.FilePath);
        return false;
    }
    SetAvailable(entry, offered);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && RunAll(targets) && entry.SaveToDatabase(false) && transaction.Commit();
}

/// Takes back what Begin did, unless someone else has taken the row further. A new row for which a device has
/// asked meanwhile stays, as missing.
void GiveUp(const Reception& reception) {
    const FileStoreEntry& row = reception.before;
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    const KelLock lock(FileStore::mutexDownstream);
    if (connection.ReadString(kTableFiles, kFileStatus, kFileId, row.FileId) != kStatusReceiving) return;
    if (reception.isNew && connection.ReadInteger(kTableTargets, kTargetId, kFileId, row.FileId, -1) < 0) {
        DeleteFileRow(false, row.FileId);
        return;
    }
    connection.Query(KelFormat("UPDATE %s SET %s = '%Q', %s = %ld WHERE %s = %lu", kTableFiles, kFileStatus,
                               reception.isNew ? KelString(kStatusMissing) : row.FileStatus,
                               kLastStatusChangeTime, reception.isNew ? 0 : row.LastStatusChangeTime, kFileId,
                               row.FileId));
    if (reception.isNew) FileStore::threadHandler.WakeUp();
}

/// Brings the content of an offer into the store and records it; false, with nothing left of it but perhaps
/// the content, when that failed.
bool TakeIn(const LocalSource& source, FileStoreEntry& offered, unsigned int wakeOnLan,
            const KelContainer& devicePath) {
    Reception reception;
    if (!Begin(reception, offered)) return false;
    const KelVector<KelString> targets =
        TargetStatements(reception.before.FileId, wakeOnLan, devicePath);  // calls local actions: no lock
    const KelString folder =
        FileStore::StoreFolder(false, offered.FileType, offered.FileLabel, offered.FileChecksum);
    if (PlaceContent(source, folder, offered.FilePath, reception.WasAvailable()) &&
        Complete(reception, offered, targets))
        return true;
    GiveUp(reception);
    return false;
}

Announced RecordAnnounced(const FileStoreEntry& offered, const MulticastOffer& multicast,
                          const KelString& transportMode, unsigned int wakeOnLan,
                          const KelContainer& devicePath) {
    FileStoreEntry entry = offered;
    KelVector<KelString> targets;
    {
        const KelLock lock(FileStore::mutexDownstream);
        if (!LoadKnown(entry)) entry.FileId = 0;
    }
    const bool isNew = entry.FileId == 0;
    const unsigned long fileId =
        isNew ? FileStore::dbSequenceManagerDownstream.GetId(kTableFiles, kFileId) : entry.FileId;
    if (isNew) targets = TargetStatements(fileId, wakeOnLan, devicePath);

    const KelLock lock(FileStore::mutexDownstream);
    if (LoadKnown(entry)) return TakeUpAgain(entry, offered, multicast, transportMode);
    entry = AnnouncedEntry(offered, multicast);
    entry.FileId = fileId;
    return CreateWithTargets(entry, targets) ? Announced::ToBeDownloaded : Announced::Failed;
}

}  // namespace

int FileStore::ReceiveDownstreamLocalFile(KelContainer& arguments, const KelString& type,
                                          const KelString& label, const KelString& name, KelString& checksum,
                                          unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                          unsigned int priority) {
    LocalSource source = ReadLocalSource(arguments);
    if (!FillChecksum(source, checksum)) return kKelErrorBadInput;
    FileStoreEntry offered = OfferedEntry(type, label, name, checksum, keepCopy, bypass, priority);
    const KelString path = StorePath(false, type, label, checksum, name);
    offered.ExternalFile = source.kind == LocalSource::Kind::External;
    offered.FilePath = offered.ExternalFile ? source.path : path;
    if (offered.ExternalFile) offered.FileURL = arguments.GetString("FileURL");
    offered.FileSize = ContentSize(source, path);
    offered.Acknowledged = true;
    offered.FileInfo = FileInfoXml(arguments);
    offered.TransportMode = kTransportLocal;
    const KelContainer devicePath = arguments.GetContainer("DevicePath");
    debugFileStore.Print("Receiving downstream local file %S/%S/%S\n", type, label, name);
    // A source that is named, whatever it is, makes this device the one that the targets fetch from; without
    // one they fetch from their parents.
    if (arguments.Has("SourceDevice")) GetOurDeviceGUID(offered.SourceDevice, true);
    arguments.Clear();
    if (offered.FileSize < 0) {
        debugFileStore.Warning("Refusing an offer whose file '%S' cannot be read\n", source.path);
        return kKelErrorBadInput;
    }

    if (!TakeIn(source, offered, wakeOnLan, devicePath)) return kKelErrorBadInput;
    RemoveMovedSource(source, path);
    threadNotify.WakeUp();
    return kKelOk;
}

int FileStore::ReceiveDownstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                           unsigned int priority) {
    FileStoreEntry offered = OfferedEntry(type, label, name, checksum, keepCopy, bypass, priority);
    offered.FileURL = arguments.GetString("FileURL");
    offered.FileSize = arguments.GetInt64("FileSize");
    offered.SourceDevice = arguments.GetString("SourceDevice");
    offered.FileInfo = FileInfoXml(arguments);
    const MulticastOffer multicast = ReadMulticast(arguments);
    const KelString transportMode = arguments.GetString("TransportMode");
    const KelContainer devicePath = arguments.GetContainer("DevicePath");
    debugFileStore.Print("Receiving downstream remote file %S/%S/%S\n", type, label, name);
    debugFileStore.Trace("Transfer mode : %S, %u, %u\n", multicast.address, multicast.port,
                         multicast.blockSize);
    arguments.Clear();
    if (!PathCreate(StoreFolder(false, type, label, checksum)))
        debugFileStore.Warning("Cannot make the folder of %S/%S/%S\n", type, label, name);

    const Announced outcome = RecordAnnounced(offered, multicast, transportMode, wakeOnLan, devicePath);
    if (outcome == Announced::Failed) return kKelErrorBadInput;
    if (outcome == Announced::ToBeDownloaded) threadPull.WakeUp();
    debugFileStore.Print("Received downstream remote file %S/%S/%S\n", type, label, name);
    return kKelOk;
}

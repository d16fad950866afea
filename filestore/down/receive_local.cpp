#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/receive_offer.h"
#include "filestore/down/target_list.h"
#include "filestore/exchange/local_source.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/file.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/transfer_counters.h"

namespace filestore {

namespace {

/// A local offer while its content is brought into the store, which takes long and needs no lock. Begin, then
/// Complete, or GiveUp when content or record failed.
struct Reception {
    FileStoreEntry before;  ///< the row as the offer found or made it
    bool isNew = false;     ///< the row was made for this offer
    bool WasAvailable() const { return before.FileStatus == kStatusAvailable; }
    bool WasObsolete() const { return before.FileStatus == kStatusObsolete; }
};

/// Sets the row of the file, made when it is unknown, to "receiving", a status that no worker serves. An
/// available file keeps its status: it is served all along. So does an obsolete one, which no worker serves
/// either: what is left in "receiving" by a crash is asked for again. False when the database did not take
/// it.
bool Begin(Reception& reception, const FileStoreEntry& offered) {
    FileStoreEntry& row = reception.before;
    const KelLock lock(FileStore::mutexDownstream);
    row = offered;
    reception.isNew = !LoadKnownFile(Side::Downstream, row);
    if (reception.isNew) {
        row.FileStatus = kStatusReceiving;
        return row.CreateInDatabase(Side::Downstream) != 0;
    }
    return reception.WasAvailable() || reception.WasObsolete() ||
           UpdateFileStatus(Side::Downstream, row.FileId, row.FileStatus, kStatusReceiving, NextTry::AtOnce);
}

/// Sets what the row says once its content is in place.
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
    entry.MulticastTransferToBeStarted = 0;
    entry.TransportMode = kTransportLocal;
    entry.FileStatus = kStatusAvailable;
}

/// Makes the file available with its targets: all or nothing. What others have written to the row since Begin
/// stays, except where the offer says something else.
bool Complete(const Reception& reception, FileStoreEntry& offered,
              const KelVector<FileStoreTarget>& targets) {
    const KelLock lock(FileStore::mutexDownstream);
    if (!offered.ExternalFile) offered.FileSize = FileGetSize64(offered.FilePath);
    FileStoreEntry entry;
    if (offered.FileSize < 0 || !entry.LoadFromDatabase(reception.before.FileId, Side::Downstream)) {
        FileStore::debugFileStore.Warning(
            "%S or its row was removed while the file was taken in: offer it again\n", offered.FilePath);
        return false;
    }
    SetAvailable(entry, offered);
    return SaveFileWithTargets(entry, targets);
}

/// Undoes Begin, unless another thread has changed the status since. A new row that a device has requested in
/// the meantime stays, as missing: the file is then looked for elsewhere. False when the database did not
/// take it.
bool Undo(const Reception& reception) KEL_REQUIRES(FileStore::mutexDownstream) {
    FileStoreEntry row = reception.before;
    const auto status = LookUpStatus(Side::Downstream, row.FileId);
    if (!status) return false;
    if (*status != kStatusReceiving) return true;
    if (reception.isNew) {
        if (!HasTargets(row.FileId)) return DeleteFileRow(Side::Downstream, row.FileId);
        row.FileStatus = kStatusMissing;
        row.LastStatusChangeTime = 0;
    }
    if (!RestoreFileStatus(Side::Downstream, row)) return false;
    if (reception.isNew) FileStore::WakeWorker(Worker::Handler);
    return true;
}

/// Failed receptions whose rows are still "receiving", because the database did not take that either.
KelVector<Reception> unfinished KEL_GUARDED_BY(FileStore::mutexDownstream);

void GiveUp(const Reception& reception, const LocalSource& source, const FileStoreEntry& offered) {
    const KelLock lock(FileStore::mutexDownstream);
    if (!Undo(reception)) unfinished.push_back(reception);
    if (FindExactFile(Side::Downstream, offered.Key()) == 0) RemovePlaced(source, offered.FilePath);
}

/// A file that was wanted before the offer waits for what the offer did not bring.
void NoteShortage(const Reception& reception, const WaitingReason& why) {
    if (why.code == Waiting::DiskFull && !reception.isNew)
        Reasons().Note(Side::Downstream, reception.before.FileId, WaitingStep::Download, why);
}

/// Brings the content of an offer into the store and records it. False when that failed: nothing of the offer
/// is left then. `why`: see PlaceContent.
bool TakeIn(const LocalSource& source, FileStoreEntry& offered, unsigned int wakeOnLan,
            const KelContainer& devicePath, WaitingReason& why) {
    const KelFileLease inUse(offered.FilePath);
    Reception reception;
    if (!Begin(reception, offered)) return false;
    const auto targets = TargetsOf(wakeOnLan, devicePath);
    if (targets && PlaceContent(source, offered.FilePath, reception.WasAvailable(), why) &&
        Complete(reception, offered, *targets))
        return true;
    GiveUp(reception, source, offered);
    NoteShortage(reception, why);
    return false;
}

FileStoreEntry ReadOffered(const KelContainer& arguments, const Offer& offer, const LocalSource& source) {
    FileStoreEntry offered = offer.ToEntry();
    const KelString path = FileStore::StorePath(Side::Downstream, offer.key);
    offered.ExternalFile = source.kind == LocalSource::Kind::External;
    offered.FilePath = offered.ExternalFile ? source.path : path;
    if (offered.ExternalFile) offered.FileURL = arguments.GetString(kValueFileUrl);
    offered.FileSize = ContentSize(source, path);
    offered.Acknowledged = true;
    offered.FileInfo = FileInfoXml(arguments);
    offered.TransportMode = kTransportLocal;
    return offered;
}

bool IsAvailable(const FileKey& key) {
    FileStoreEntry known(key);
    return LoadKnownFile(Side::Downstream, known) && known.FileStatus == kStatusAvailable;
}

}  // namespace

void UndoFailedOffers() {
    const KelLock lock(FileStore::mutexDownstream);
    std::erase_if(unfinished, [](const Reception& reception)
                                  KEL_REQUIRES(FileStore::mutexDownstream) { return Undo(reception); });
}

unsigned int ReceiveDownstreamLocal(KelContainer& arguments, Offer& offer) {
    LocalSource source = ReadLocalSource(arguments);
    if (!FillChecksum(source, offer.key.checksum)) return kKelErrorBadInput;
    if (offer.repeated && IsAvailable(offer.key)) {
        arguments.Clear();
        arguments.SetBool(kValueContentHeld, true);
        return kKelOk;
    }
    FileStoreEntry offered = ReadOffered(arguments, offer, source);
    const KelContainer devicePath = arguments.GetContainer(kValueDevicePath);
    FileStore::debugFileStore.Print("Receiving downstream local file %S/%S/%S\n", offer.key.type,
                                    offer.key.label, offer.key.name);
    // Naming a source, whatever it is, makes this device the one that the targets fetch from; without one
    // they fetch from their parents.
    if (arguments.Has(kValueSourceDevice)) offered.SourceDevice = OurDeviceUrl();
    arguments.Clear();
    if (offered.FileSize < 0) {
        FileStore::debugFileStore.Warning("Refusing an offer whose file '%S' cannot be read\n", source.path);
        return kKelErrorBadInput;
    }

    WaitingReason why;
    if (!TakeIn(source, offered, offer.wakeOnLan, devicePath, why)) return AnswerNotTaken(arguments, why);
    KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Local)
        .AddFile(static_cast<std::uint64_t>(offered.FileSize));
    RemoveMovedSource(source, FileStore::StorePath(Side::Downstream, offer.key));
    FileStore::WakeWorker(Worker::Notify);
    return kKelOk;
}

}  // namespace filestore

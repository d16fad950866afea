#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/db/withdrawals_table.h"
#include "filestore/down/damaged_copy.h"
#include "filestore/exchange/file_record.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/exchange/offer.h"
#include "filestore/packages/package_repository.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/caller.h"
#include "filestore/state/contact.h"
#include "filestore/state/external_content.h"
#include "filestore/state/file_store.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

// Answers requests of the devices below, and of modules of this device, for files and for their sizes.

namespace {

/// LastNotifyTime of a requester that becomes a target of a known file: long past, so that it is due at once,
/// and behind targets that have never been notified (0).
constexpr std::int64_t kDueSinceRequest = 8;

struct Request {
    FileStoreEntry file;   ///< key, information and bypass flag
    KelString deviceGuid;  ///< device URL of the requester; empty: a module of this device
    KelString openFor;     ///< GUID of the client that asks without a checksum, where a certificate proves it
    bool isDamaged = false;  ///< the requester has fetched the file, and could not use it
    bool multicast = false;  ///< files go out by multicast now, so no URL is given
};

struct Answer {
    bool obsolete = false;
    KelString url;
    unsigned int keepCopy = 0;
    KelString checksum;  ///< of the file found, when the request left it open
    KelContainer info;   ///< of the file found, when the master has signed it
    KelString status;    ///< of the file's row when it was last looked at; empty: no row; not sent
};

/// Relays are believed.
KelString RequestedFor(const KelContainer& arguments) {
    const KelCallOrigin origin = CallOriginOf(arguments);
    if (origin.deviceGuid.empty() || !arguments.GetString(kValueFileChecksum).empty()) return {};
    return origin.mayPassOn ? arguments.GetContainer(kValueFileInfo).GetString(kRequestedFor)
                            : origin.deviceGuid;
}

Request ReadRequest(const KelContainer& arguments) {
    Request request;
    request.file.SetKey(FileKey::Read(arguments));
    request.file.Bypass = arguments.GetBool(kValueBypass);
    request.deviceGuid = arguments.GetString(kValueDeviceGuid);
    KelContainer info = arguments.GetContainer(kValueFileInfo);
    // What a device below says was signed does not become what this one passes on.
    if (!request.deviceGuid.empty()) info.Remove(kValueSigned);
    request.openFor = RequestedFor(arguments);
    info.Remove(kRequestedFor);
    if (!request.openFor.empty()) info.SetString(kRequestedFor, request.openFor);
    if (arguments.Has(kValueFileInfo) || !request.openFor.empty()) request.file.FileInfo = info.SaveToXML();
    request.isDamaged = arguments.GetBool(kValueContentDamaged);
    int frameSize = 0;
    request.multicast = FileStore::bmTrackUsageMulticast.BandwidthIsLimited() &&
                        FileStore::bmTrackUsageMulticast.GetRate(frameSize) != 0;
    return request;
}

bool CheckRequest(const Request& request) {
    return CheckFileKey(request.file.Key(), true) && CheckDeviceText(kValueDeviceGuid, request.deviceGuid);
}

void LogRequest(const Request& request) {
    const FileStoreEntry& file = request.file;
    if (request.deviceGuid.empty())
        FileStore::debugFileStore.Print("Received local request for %S/%S/%S\n", file.FileType,
                                        file.FileLabel, file.FileName);
    else
        FileStore::debugFileStore.Print("Received request from %S for %S/%S/%S\n", request.deviceGuid,
                                        file.FileType, file.FileLabel, file.FileName);
}

/// A row of the requested type for a package that is known as a rule package only; 0 when it is not.
std::uint64_t CopyRulePackage(const FileStoreEntry& requested) KEL_REQUIRES(FileStore::mutexDownstream) {
    FileStoreEntry copy = requested;
    copy.FileType = kRulePackageType;
    if (!LoadKnownFile(Side::Downstream, copy)) return 0;
    if (copy.FileStatus == kStatusAvailable && !copy.ExternalFile) {  // the content lies at the package
        copy.FilePath = FileStore::StorePath(Side::Downstream, copy.Key());
        copy.FileURL = StoredUrl(Side::Downstream, copy.Key());
        copy.ExternalFile = true;
    }
    // The offer that the package is just being received from ends that status of its own row only.
    if (copy.FileStatus == kStatusReceiving) copy.FileStatus = kStatusMissing;
    copy.FileId = 0;
    copy.FileType = requested.FileType;
    copy.FileInfo = requested.FileInfo;
    return copy.CreateInDatabase(Side::Downstream);
}

/// The row of the requested file, 0 when it is unknown. A network package that is unknown under its own type
/// is looked for as a rule package.
std::uint64_t FindRequested(const FileStoreEntry& file) KEL_REQUIRES(FileStore::mutexDownstream) {
    const std::uint64_t fileId = FindFileInDatabase(Side::Downstream, file.Key());
    if (fileId != 0) return fileId;
    if (file.FileType != "OperationalRuleNetworkPackage" && file.FileType != "OperationalRelayPackage")
        return 0;
    return CopyRulePackage(file);
}

void InsertTarget(std::uint64_t fileId, const KelString& deviceGuid, std::int64_t lastNotifyTime) {
    FileStoreTarget target;
    target.DeviceGUID = deviceGuid;
    target.TargetCreateTime = std::time(nullptr);
    target.LastNotifyTime = lastNotifyTime;
    const std::uint64_t targetId = StoreTarget(fileId, target);
    if (lastNotifyTime != 0 && targetId != 0)
        FileStore::debugFileStore.Print("Target ID has not been found, New TargetId generated : %lu\n",
                                        targetId);
}

/// Makes the requester a target of the file so that the notify thread serves it.
void EnsureTarget(std::uint64_t fileId, const Request& request) KEL_REQUIRES(FileStore::mutexDownstream) {
    const auto found = FindTargets(fileId, request.deviceGuid);
    if (!found) return;
    if (found->empty())
        InsertTarget(fileId, request.deviceGuid, kDueSinceRequest);
    else if (request.multicast)
        SetNotifyTime(found->front().TargetId, 0);
    FileStore::WakeWorker(Worker::Notify);
}

/// Records an unknown file as missing, to be fetched from further up for the requester.
void RecordMissing(const Request& request) KEL_REQUIRES(FileStore::mutexDownstream) {
    FileStore::debugFileStore.Print("File does not exist, adding it to database\n");
    FileStoreEntry entry = request.file;
    entry.FileStatus = kStatusMissing;
    entry.LastRequestTime = std::time(nullptr);
    if (entry.CreateInDatabase(Side::Downstream) == 0) return;
    InsertTarget(entry.FileId, request.deviceGuid, 0);
    FileStore::WakeWorker(Worker::Handler);
}

/// Content outside the store, and all files on the master, have URLs of their own.
KelString UrlOf(const FileStoreEntry& entry) {
    const bool hasOwnUrl = entry.ExternalFile || ActionDbIsActionRegistered("QuarnelDbRunScript");
    if (hasOwnUrl && !entry.FileURL.empty()) return entry.FileURL;
    return StoredUrl(Side::Downstream, entry.Key());
}

/// Who knows the checksum of a file may have it. Who does not may have what was published for every device or
/// for this one, and what is not signed; of a file that has yet to come, only the device for which it was
/// requested.
bool MayHave(const Request& request, const FileStoreEntry& entry) KEL_REQUIRES(FileStore::mutexDownstream) {
    if (request.openFor.empty()) return true;
    if (StringTokeniser(request.deviceGuid, '/').GetToken(1) == request.openFor) {
        const auto targets = FindTargets(entry.FileId, request.deviceGuid);
        if (targets && !targets->empty()) return true;
    }
    const KelContainer info = FileInfoOf(entry);
    const bool isExpected = !info.Has(kValueSigned) && entry.FileStatus != kStatusAvailable;
    return isExpected ? info.GetString(kRequestedFor) == request.openFor
                      : IsPublishedFor(info, request.openFor);
}

/// Files of one name may have been published for different devices. Loads one that the requester may have;
/// without one, `entry` stays as it is.
bool LoadOther(const Request& request, FileStoreEntry& entry) KEL_REQUIRES(FileStore::mutexDownstream) {
    for (const std::uint64_t fileId : FindFilesByName(Side::Downstream, request.file.Key())) {
        FileStoreEntry other;
        if (fileId == entry.FileId || !other.LoadFromDatabase(fileId, Side::Downstream) ||
            !MayHave(request, other))
            continue;
        entry = other;
        return true;
    }
    return false;
}

enum class InStore : unsigned char {
    Unknown,   ///< no row
    NotHere,   ///< a row, but no content: the package repository may have it
    Answered,  ///< nothing more to do
};

/// Answers from the store as far as that goes. `fileId` receives the file's row.
InStore AnswerFromStore(const Request& request, std::uint64_t& fileId, Answer& answer)
    KEL_REQUIRES(FileStore::mutexDownstream) {
    fileId = FindRequested(request.file);
    if (fileId == 0) return InStore::Unknown;
    FileStoreEntry entry;
    if (!entry.LoadFromDatabase(fileId, Side::Downstream)) return InStore::Answered;
    if (!MayHave(request, entry) && !LoadOther(request, entry)) {
        FileStore::failures.Failed(KelDebugLevel::Warning, "open request " + request.openFor,
                                   KelFormat("Refusing a request of %S for %S, which was published for, or "
                                             "requested by, other devices; with the checksum it would get it",
                                             request.openFor, entry.Key().Text()));
        return InStore::Answered;
    }
    fileId = entry.FileId;
    if (entry.FileStatus == kStatusObsolete) {
        FileStore::debugFileStore.Print("Requested file %S is obsolete.\n", entry.FileName);
        answer.obsolete = true;
        return InStore::Answered;
    }
    if (entry.FileStatus != answer.status)  // not once more when the row is looked at again
        FileStore::debugFileStore.Print("File %S already exists in database, status %S\n", entry.FileName,
                                        entry.FileStatus);
    answer.status = entry.FileStatus;
    answer.keepCopy = entry.KeepCopy;
    if (entry.FileStatus != kStatusAvailable) return InStore::NotHere;
    answer.url = UrlOf(entry);
    answer.checksum = entry.FileChecksum;
    if (IsSigned(entry.FileInfo)) answer.info = FileInfoOf(entry);
    SetLastRequestTime(fileId, std::time(nullptr));
    EnsureTarget(fileId, request);
    return InStore::Answered;
}

/// Looks whether the content is there that the row of a file promises; without a lock, because the disk may
/// be slow.
void VerifyContent(const FileKey& key) {
    FileStoreEntry entry(key);
    if (!LoadKnownFile(Side::Downstream, entry)) return;
    if (entry.FileStatus == kStatusNotRelaysChild) FileStore::UpdateScriptAndPackageStatus(entry.FileId);
    ForgetIfGone(entry);
}

/// A file that is not here but in the package repository becomes available; the requester gets it when it
/// asks again. The requester becomes a target of a known file that is still on its way, unless the repository
/// holds other content under the same name. A device that has yet to learn that the file is withdrawn misses
/// it in vain.
Answer AnswerRequest(const Request& request) {
    Answer answer;
    if (!request.deviceGuid.empty() && IsBeingWithdrawn(request.file.Key(), request.deviceGuid))
        return answer;
    VerifyContent(request.file.Key());
    std::uint64_t fileId = 0;
    {
        const KelLock lock(FileStore::mutexDownstream);
        if (AnswerFromStore(request, fileId, answer) == InStore::Answered) return answer;
    }
    // Without the lock, because content is hashed and copied. What has been read of the row may be outdated
    // afterwards, so the store is asked again.
    const RepositoryResult repository = TakeFromRepository(request.file);
    if (repository == RepositoryResult::Taken) return answer;
    const KelLock lock(FileStore::mutexDownstream);
    const InStore found = AnswerFromStore(request, fileId, answer);
    if (found == InStore::Unknown)
        RecordMissing(request);
    else if (found == InStore::NotHere && repository == RepositoryResult::Absent)
        EnsureTarget(fileId, request);
    return answer;
}

void WriteAnswer(const Request& request, const Answer& answer, KelContainer& results) {
    if (answer.obsolete) {
        results.SetBool("FileObsolete", true);
        return;
    }
    if (!request.multicast) results.SetInt32(kValueKeepCopy, static_cast<std::int32_t>(answer.keepCopy));
    results.SetString(kValueFileUrl, request.multicast ? KelString() : answer.url);
    if (request.file.FileChecksum.empty() && !answer.checksum.empty())
        results.SetString(kValueFileChecksum, answer.checksum);
    if (answer.info.Has(kValueSigned)) results.SetContainer(kValueFileInfo, answer.info);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreRequestFile(KelContainer* arguments) {
    const Request request = ReadRequest(*arguments);
    // The file is announced to the requester, or handed to the modules of this device when it names none.
    const bool isUsable = CheckRequest(request) && CheckIsCallOf(*arguments, request.deviceGuid);
    arguments->Clear();
    if (!isUsable) return kKelErrorBadInput;
    LogRequest(request);
    if (!request.deviceGuid.empty() && !CheckGuidScheme(request.deviceGuid)) {
        debugFileStore.Print("The GUID scheme of requester is not valid\n");
        return kKelErrorGuidScheme;
    }
    NoteSignOfLife(request.deviceGuid);
    if (request.isDamaged) RememberReportedDamage(request.file.Key());
    WriteAnswer(request, AnswerRequest(request), *arguments);
    return kKelOk;
}

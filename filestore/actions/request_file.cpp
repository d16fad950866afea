#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/offer.h"
#include "filestore/transfer/package_repository.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr const char* kPackageType = "OperationalRulePackage";

/// What a requester asks for.
struct Request {
    FileStoreEntry file;     ///< key, information and bypass flag
    KelString deviceGuid;    ///< device URL of the requester; empty: a module of this device
    bool multicast = false;  ///< files go out by multicast now, so no URL is given
};

/// What it is told.
struct Answer {
    bool obsolete = false;
    KelString url;
    unsigned int keepCopy = 0;
    KelString checksum;  ///< of the file found, when the request left it open
};

Request ReadRequest(const KelContainer& arguments) {
    Request request;
    request.file.FileType = arguments.GetString("FileType");
    request.file.FileLabel = arguments.GetString("FileLabel");
    request.file.FileName = arguments.GetString("FileName");
    request.file.FileChecksum = arguments.GetString("FileChecksum");
    request.file.Bypass = arguments.GetBool("Bypass");
    request.file.FileInfo = FileInfoXml(arguments);
    request.deviceGuid = arguments.GetString("DeviceGUID");
    int frameSize = 0;
    request.multicast = FileStore::bmTrackUsageMulticast.BandwidthIsLimited() &&
                        FileStore::bmTrackUsageMulticast.GetRate(frameSize) != 0;
    return request;
}

bool CheckRequest(const Request& request) {
    const FileStoreEntry& file = request.file;
    return CheckKeyPart("FileType", file.FileType, true) &&
           CheckKeyPart("FileLabel", file.FileLabel, false) &&
           CheckKeyPart("FileName", file.FileName, false) &&
           (file.FileChecksum.empty() || CheckKeyPart("FileChecksum", file.FileChecksum, true)) &&
           CheckDeviceText("DeviceGUID", request.deviceGuid);
}

/// The row of the file; a network package that is unknown under its own type is looked for as a rule package,
/// and a hit becomes a row of the requested type. 0 when unknown. The caller holds mutexDownstream.
unsigned long FindRequested(const Request& request) {
    const FileStoreEntry& file = request.file;
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    const unsigned long fileId = FileStore::FindFileInDatabase(connection, file.FileType, file.FileLabel,
                                                               file.FileName, file.FileChecksum);
    if (fileId != 0 ||
        (file.FileType != "OperationalRuleNetworkPackage" && file.FileType != "OperationalRelayPackage"))
        return fileId;
    const unsigned long packageId = FileStore::FindFileInDatabase(connection, kPackageType, file.FileLabel,
                                                                  file.FileName, file.FileChecksum);
    FileStoreEntry copy;
    if (packageId == 0 || !copy.LoadFromDatabase(packageId, false)) return 0;
    if (copy.FileStatus == kStatusAvailable && !copy.ExternalFile) {  // the content lies at the package
        copy.FilePath =
            FileStore::StorePath(false, kPackageType, copy.FileLabel, copy.FileChecksum, copy.FileName);
        copy.FileURL =
            FileStore::StoreUrl(false, kPackageType, copy.FileLabel, copy.FileChecksum, copy.FileName);
        copy.ExternalFile = true;
    }
    // The offer that the package is just being received from ends that status of its own row only.
    if (copy.FileStatus == kStatusReceiving) copy.FileStatus = kStatusMissing;
    copy.FileId = 0;
    copy.FileType = file.FileType;
    copy.FileInfo = file.FileInfo;
    return copy.CreateInDatabase(false);
}

void InsertTarget(std::uint64_t fileId, const KelString& deviceGuid, unsigned int lastNotifyTime) {
    const std::uint64_t targetId = FileStore::dbSequenceManagerDownstream.GetId(kTableTargets, kTargetId);
    if (lastNotifyTime != 0)
        FileStore::debugFileStore.Print("Target ID has not been found, New TargetId generated : %lu\n",
                                        targetId);
    FileStore::pDbConnectionDownstream->Query(KelFormat(
        "INSERT INTO %s (%s, %s, %s, %s, %s, %s) VALUES (%lu, %lu, '%S', '', %lu, %u)", kTableTargets,
        kTargetId, kFileId, kDeviceGuid, kDevicePath, kTargetCreateTime, kLastNotifyTime, targetId, fileId,
        deviceGuid, static_cast<unsigned long>(std::time(nullptr)), lastNotifyTime));
}

/// An unknown file: recorded as missing, to be fetched from further up for the requester.
void RecordMissing(const Request& request) {
    FileStore::debugFileStore.Print("File does not exist, adding it to database\n");
    FileStoreEntry entry = request.file;
    entry.FileStatus = kStatusMissing;
    entry.LastRequestTime = std::time(nullptr);
    if (entry.CreateInDatabase(false) == 0) return;
    InsertTarget(entry.FileId, request.deviceGuid, 0);
    FileStore::threadHandler.WakeUp();
}

/// Makes the requester a target of the file so that the notify thread serves it. A module of this device is a
/// target of its own: the prefix match of an empty name would take any device for it.
void EnsureTarget(std::uint64_t fileId, const Request& request) {
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    const KelString condition = request.deviceGuid.empty()
                                    ? KelFormat("%s = ''", kDeviceGuid)
                                    : KelFormat("%s LIKE '%S%'", kDeviceGuid, request.deviceGuid);
    const auto found = connection.Query(KelFormat("SELECT %s FROM %s WHERE %s = %lu AND %S", kTargetId,
                                                  kTableTargets, kFileId, fileId, condition));
    if (!found) return;
    if (found->GetRowCount() == 0) {
        InsertTarget(fileId, request.deviceGuid, 8);
    } else if (request.multicast) {
        connection.Query(KelFormat("UPDATE %s SET %s = %u WHERE %s = %lu", kTableTargets, kLastNotifyTime, 0U,
                                   kTargetId, static_cast<unsigned long>(found->GetInt64(0, kTargetId))));
    }
}

KelString UrlOf(const FileStoreEntry& entry) {
    const bool hasOwnUrl = entry.ExternalFile || ActionDbIsActionRegistered("QuarnelDbRunScript");
    if (hasOwnUrl && !entry.FileURL.empty()) return entry.FileURL;
    return FileStore::StoreUrl(false, entry.FileType, entry.FileLabel, entry.FileChecksum, entry.FileName);
}

void ServeKnown(unsigned long fileId, const Request& request, Answer& answer) {
    FileStoreEntry entry;
    if (!entry.LoadFromDatabase(fileId, false)) return;
    if (entry.FileStatus == kStatusObsolete) {
        FileStore::debugFileStore.Print("Requested file %S is obsolete.\n", entry.FileName);
        answer.obsolete = true;
        return;
    }
    FileStore::debugFileStore.Print("File %S already exists in database, status %S\n", entry.FileName,
                                    entry.FileStatus);
    if (entry.FileStatus == kStatusNotRelaysChild) {
        FileStore::UpdateScriptAndPackageStatus(fileId);
        entry.LoadFromDatabase(fileId, false);
    }
    answer.keepCopy = entry.KeepCopy;
    if (entry.FileStatus == kStatusAvailable) {
        answer.url = UrlOf(entry);
        answer.checksum = entry.FileChecksum;
        FileStore::pDbConnectionDownstream->Query(
            KelFormat("UPDATE %s SET %s=%lu WHERE %s = %lu", kTableFiles, kLastRequestTime,
                      static_cast<unsigned long>(std::time(nullptr)), kFileId, fileId));
    } else if (TakeFromRepository(request.file) != RepositoryResult::Absent) {
        return;
    }
    EnsureTarget(fileId, request);
}

void WriteAnswer(const Request& request, const Answer& answer, KelContainer& results) {
    if (answer.obsolete) {
        results.SetBool("FileObsolete", true);
        return;
    }
    if (!request.multicast) results.SetInt32("KeepCopy", static_cast<std::int32_t>(answer.keepCopy));
    results.SetString("FileURL", request.multicast ? KelString() : answer.url);
    if (request.file.FileChecksum.empty() && !answer.checksum.empty())
        results.SetString("FileChecksum", answer.checksum);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreRequestFile(KelContainer* arguments) {
    const Request request = ReadRequest(*arguments);
    arguments->Clear();
    if (!CheckRequest(request)) return kKelErrorBadInput;
    const FileStoreEntry& file = request.file;
    if (request.deviceGuid.empty())
        debugFileStore.Print("Received local request for %S/%S/%S\n", file.FileType, file.FileLabel,
                             file.FileName);
    else
        debugFileStore.Print("Received request from %S for %S/%S/%S\n", request.deviceGuid, file.FileType,
                             file.FileLabel, file.FileName);
    if (!request.deviceGuid.empty() && !CheckGuidScheme(request.deviceGuid)) {
        debugFileStore.Print("The GUID scheme of requester is not valid\n");
        return kKelErrorGuidScheme;
    }

    Answer answer;
    {
        const KelLock lock(mutexDownstream);
        if (const unsigned long fileId = FindRequested(request); fileId != 0)
            ServeKnown(fileId, request, answer);
        else if (TakeFromRepository(file) != RepositoryResult::Taken)
            RecordMissing(request);
    }
    WriteAnswer(request, answer, *arguments);
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreRequestFileSize(KelContainer* arguments) {
    const Request request = ReadRequest(*arguments);
    if (!CheckRequest(request)) return kKelErrorBadInput;
    const FileStoreEntry& file = request.file;
    long long size = 0;
    const unsigned int error =
        RequestFileSize(file.FileType, file.FileLabel, file.FileName, file.FileChecksum, size);
    if (error == 0) arguments->SetInt64("FileSize", size);
    return error;
}

#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/row_changes.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/push_thread.h"
#include "filestore/transfer/file_record.h"
#include "filestore/transfer/http_transfer.h"
#include "filestore/transfer/offer.h"
#include "filestore/transfer/upload_policy.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr const char* kRequestAction = "FileStoreRequestFile";

std::shared_ptr<const DBResult> SelectFileToRequest(std::int64_t before) {
    return FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s = '%s' AND %s < %u %S ORDER BY %s "
        "LIMIT 1",
        kFileId, kFileType, kFileLabel, kFileName, kFileChecksum, kBypass, kFileInfo, kFileStatus,
        kLastStatusChangeTime, kPriority, kTableFiles, kFileStatus, kStatusToBeRequested,
        kLastStatusChangeTime, static_cast<std::uint32_t>(before), BypassFilter(), kLastStatusChangeTime));
}

KelContainer RequestOf(const DBResult& row, const KelString& deviceUrl) {
    KelContainer request;
    for (const char* name : {kFileType, kFileLabel, kFileName, kFileChecksum})
        request.SetString(name, row.GetString(0, name));
    request.SetContainer(kFileInfo, FileInfoOf(row.GetString(0, kFileInfo), row.GetString(0, kFileName)));
    request.SetBool(kBypass, row.GetBool(0, kBypass));
    request.SetString(kDeviceGuid, deviceUrl);
    return request;
}

/// The URL that the parent gave, empty when it is none.
KelString UrlOf(const KelContainer& answer) {
    const KelString url = answer.GetString(kFileUrl);
    return url.starts_with('/') && !HasControlCharacter(url) ? url : KelString();
}

/// A file that was asked for by type, label and name only gets the checksum of what the parent has.
KelString ChecksumOf(const DBResult& row, const KelContainer& answer) {
    const KelString& known = row.GetString(0, kFileChecksum);
    const KelString given = answer.GetString(kFileChecksum);
    return known.empty() && !given.empty() && CheckKeyPart(kFileChecksum, given, true) ? given : known;
}

/// Leaves a row alone that an announcement or an offer has taken further while the parent was asked. False
/// when the database failed.
bool RecordAnswer(const DBResult& row, const KelContainer& answer) {
    const KelString url = UrlOf(answer);
    KelString status = kStatusToBeRequested;
    auto time = static_cast<std::uint32_t>(std::time(nullptr));
    if (!url.empty()) {
        status = kStatusDownloading;
        time = 0;
    } else if (answer.GetBool("FileObsolete")) {
        status = kStatusObsolete;
        time = 0;
    }
    const KelLock lock(FileStore::mutexDownstream);
    return FileStore::pDbConnectionDownstream->Query(KelFormat(
               "UPDATE %s SET %s = '%S', %s = %u, %s = '%Q', %s = %u, %s = '%S' WHERE %s = %ld "
               "AND %s = '%s'",
               kTableFiles, kFileStatus, status, kLastStatusChangeTime, time, kFileUrl, url, kKeepCopy,
               static_cast<std::uint32_t>(answer.GetInt32(kKeepCopy)), kFileChecksum, ChecksumOf(row, answer),
               kFileId, row.GetInt64(0, kFileId), kFileStatus, kStatusToBeRequested)) != nullptr;
}

void WaitForRetry(unsigned long fileId) {
    SetFileStatus(false, fileId, kStatusToBeRequested, kStatusToBeRequested, TakenUp::AfterTimeout);
}

}  // namespace

FileStorePushThread::Outcome FileStorePushThread::RequestFile(bool& reachedParent) {
    FileStore::debugFileStore.Trace("PushThread: Looking for files to request upstream\n");
    if (!IsUploadAllowed()) return Outcome::Nothing;
    KelString deviceUrl;
    FileStore::GetOurDeviceGUID(deviceUrl, true);
    if (deviceUrl.empty()) {
        FileStore::debugFileStore.Print("PushThread: Do not have a GUID yet so will not send request\n");
        return Outcome::Nothing;
    }
    const auto row = SelectFileToRequest(std::time(nullptr) - static_cast<std::int64_t>(currentTimeout_));
    if (!row || row->GetRowCount() == 0) return Outcome::Nothing;
    ++rowsTaken_;
    const auto fileId = static_cast<unsigned long>(row->GetInt64(0, kFileId));
    FileStore::debugFileStore.Detail("PushThread: Requesting %S/%S/%S upstream\n",
                                     row->GetString(0, kFileType), row->GetString(0, kFileLabel),
                                     row->GetString(0, kFileName));

    KelString parentUrl, parentGuid;
    FileStore::GetRelayUrl(parentUrl, parentGuid);
    if (parentUrl.empty()) {
        WaitForRetry(fileId);
        return Outcome::Failed;
    }
    KelContainer call = RequestOf(*row, deviceUrl);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, parentUrl, kRequestAction, call, 0, -1, -1, nullptr);
    if (error != 0) {
        if (error == kKelErrorGuidScheme) FileStore::UpdateGuidScheme();
        FileStore::debugFileStore.Warning("PushThread: Failed to call %s, error %u\n", kRequestAction, error);
        WaitForRetry(fileId);
        return Outcome::Failed;
    }
    reachedParent = true;
    FileStore::debugFileStore.Detail("PushThread: Request upstream returned %u, URL %S\n", error,
                                     call.GetString(kFileUrl));
    return RecordAnswer(*row, call) ? Outcome::Done : Outcome::Failed;
}

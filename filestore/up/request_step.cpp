#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/exchange/offer.h"
#include "filestore/state/contact.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/settings.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/push_thread.h"
#include "filestore/up/upload_policy.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

constexpr const char* kRequestAction = "FileStoreRequestFile";

KelContainer RequestFor(const FileStoreEntry& file, const KelString& deviceUrl) {
    FileOffer request;
    request.key = file.Key();
    request.info = FileInfoOf(file);
    request.bypass = file.Bypass;
    KelContainer arguments = request.ToContainer();
    arguments.SetString(kValueDeviceGuid, deviceUrl);
    return arguments;
}

/// The URL path that the parent gave, empty when it is none.
KelString UrlOf(const KelContainer& answer) {
    const KelString url = answer.GetString(kValueFileUrl);
    return IsUrlPath(url) ? url : KelString();
}

/// A file that was requested by type, label and name only gets the checksum of what the parent has.
KelString ChecksumOf(const FileStoreEntry& file, const KelContainer& answer) {
    const KelString given = answer.GetString(kValueFileChecksum);
    return file.FileChecksum.empty() && !given.empty() && CheckKeyPart(kValueFileChecksum, given, true)
               ? given
               : file.FileChecksum;
}

/// Leaves a row alone that an announcement or an offer has changed while the parent was asked. False when the
/// statement failed.
bool RecordAnswer(const FileStoreEntry& file, const KelContainer& given) {
    RequestAnswer answer;
    answer.url = UrlOf(given);
    answer.keepCopy = static_cast<std::uint32_t>(given.GetInt32(kValueKeepCopy));
    answer.checksum = ChecksumOf(file, given);
    answer.info = SignedOne(file.FileInfo, FileInfoXml(given));
    if (!answer.url.empty()) {
        answer.status = kStatusDownloading;
    } else if (given.GetBool("FileObsolete")) {
        answer.status = kStatusObsolete;
    } else {
        answer.status = kStatusToBeRequested;
        answer.next = NextTry::AfterTimeout;
    }
    const bool recorded = RecordRequestAnswer(file.FileId, answer);
    if (recorded && !answer.url.empty()) FileStore::WakeWorker(Worker::Pull);
    return recorded;
}

void PostponeRequest(std::uint64_t fileId) {
    UpdateFileStatus(Side::Downstream, fileId, kStatusToBeRequested, kStatusToBeRequested,
                     NextTry::AfterTimeout);
}

}  // namespace

FileStorePushThread::Outcome FileStorePushThread::RequestFile(bool& reachedParent) {
    FileStore::debugFileStore.Trace("PushThread: Looking for files to request upstream\n");
    if (!IsUploadAllowed()) return Outcome::Nothing;
    const KelString deviceUrl = OurDeviceUrl();
    if (deviceUrl.empty()) {
        FileStore::debugFileStore.Print("PushThread: Do not have a GUID yet so will not send request\n");
        return Outcome::Nothing;
    }
    const FileRows rows = SelectFileToRequest(FileStoreDueBefore(currentTimeout_), PassingNow());
    if (rows.empty()) return Outcome::Nothing;
    const FileStoreEntry& file = rows.front();
    ++rowsTaken_;
    FileStore::debugFileStore.Detail("PushThread: Requesting %S upstream\n", file.Key().Text());

    const ParentWatch parent;
    KelString parentUrl, parentGuid;
    FileStore::GetRelayUrl(parentUrl, parentGuid);
    if (parentUrl.empty()) {
        PostponeRequest(file.FileId);
        return Outcome::Failed;
    }
    KelContainer call = RequestFor(file, deviceUrl);
    const HttpCharge charge(ChargedFor(file.Bypass));
    const unsigned int error = CallDevice(parentUrl, kRequestAction, call);
    if (error != kKelOk) {
        if (error == kKelErrorGuidScheme) FileStore::UpdateGuidScheme();
        if (FileStore::failures.Failed(
                KelDebugLevel::Warning, kRequestAction,
                KelFormat("PushThread: Failed to call %s, error %u", kRequestAction, error)))
            FileStore::debugFileStore.Warning(
                "PushThread: The parent was not asked for %S: %S; tried again\n", file.Key().Text(),
                KelErrorText(error));
        PostponeRequest(file.FileId);
        Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Request,
                       ReasonOfCall(error, PeerName(parentUrl)));
        ReportParentError(error);
        return Outcome::Failed;
    }
    reachedParent = true;
    if (UrlOf(call).empty())
        Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Request,
                       {.code = Waiting::ParentLacksFile, .peer = PeerName(parentUrl)});
    FileStore::failures.Succeeded(kRequestAction, "PushThread: The parent takes requests again");
    FileStore::debugFileStore.Detail("PushThread: Request upstream returned %u, URL %S\n", error,
                                     call.GetString(kValueFileUrl));
    const KelLock lock(FileStore::mutexDownstream);
    return !parent.HasChanged() && RecordAnswer(file, call) ? Outcome::Done : Outcome::Failed;
}

#include <string_view>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/exchange/http_transfer.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/contact.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/patch_inventory.h"
#include "filestore/up/push_thread.h"
#include "filestore/up/upload_policy.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/transfer_counters.h"

using namespace filestore;

FileStorePushThread::Outcome FileStorePushThread::SendFile(bool& reachedParent, bool packedPass) {
    const auto filter =
        UploadFilterNow(packedPass, packedPass ? "archives to send upstream" : "files to send upstream");
    if (!filter) return Outcome::Nothing;
    const FileRows rows = SelectFilesToSend(*filter);
    if (rows.empty()) return Outcome::Nothing;
    const ParentWatch parent;
    KelString parentUrl, parentGuid;
    FileStore::GetRelayUrl(parentUrl, parentGuid);
    if (parentUrl.empty()) return Outcome::Failed;

    UploadArchive archive;
    SmallFiles small;
    SentFiles sent, packed;
    bool isRefused = false;
    for (const FileStoreEntry& entry : rows) {
        if (CheckCancelled(false) || parent.HasChanged() || IsRecent(entry.LastStatusChangeTime)) break;
        if (!IsPacking() || !UploadArchive::CanPack(entry)) {
            if (parentUrl == takerOfContents_ && small.Add(entry)) continue;
            isRefused = !SendRow(entry, parentUrl, sent, reachedParent);
            if (isRefused) break;
            continue;
        }
        if (!archive.Suits(entry)) continue;    // the next archive takes it
        if (!archive.HasRoomFor(entry)) break;  // the same
        FileStore::debugFileStore.Detail("PushThread: File %S will be packed.\n", entry.Key().Text());
        archive.Add(entry);
        packed.push_back({entry.FileId, kStatusToBePacked, ""});
        reachedParent = true;
    }
    if (!isRefused && !CheckCancelled(false)) SendContents(small, parentUrl, sent, reachedParent);
    const bool created = packed.empty() || archive.Create();
    const KelLock lock(FileStore::mutexUpstream);
    if (parent.HasChanged())  // the present one has accepted nothing yet
        std::erase_if(sent,
                      [](const SentFile& file) { return std::string_view(file.status) == kStatusUploading; });
    const std::size_t accepted = sent.size();
    if (created && !packed.empty()) {
        archive_ = std::move(archive);
        sent.insert(sent.end(), packed.begin(), packed.end());
    }
    // What the parent has accepted is recorded even when there is no archive for the others.
    if (!RecordSentFiles(sent)) return Outcome::Failed;
    rowsTaken_ += accepted;
    return created ? Outcome::Done : Outcome::Failed;
}

/// Offers one file to the parent. False when the batch must end here.
bool FileStorePushThread::SendRow(const FileStoreEntry& entry, const KelString& parentUrl, SentFiles& sent,
                                  bool& reachedParent) {
    KelContainer offer = FileRecordOf(entry).ToContainer();
    FileStore::debugFileStore.Detail("PushThread: Sending %S upstream\n", entry.Key().Text());
    const HttpCharge charge(ChargedFor(entry.Bypass));
    const unsigned int error = CallDevice(parentUrl, "FileStoreReceiveFile", offer);
    const bool takesContents = error == kKelOk && offer.GetBool(kValueTakesContents);
    if (takesContents && refuserOfContents_ != parentUrl) takerOfContents_ = parentUrl;
    return TakeAnswer(entry, error, offer, parentUrl, sent, reachedParent);
}

/// Offers several files with their contents. False when the batch must end here.
bool FileStorePushThread::SendContents(SmallFiles& files, const KelString& parentUrl, SentFiles& sent,
                                       bool& reachedParent) {
    if (files.Entries().empty()) return true;
    KelContainer call = files.TakeCall();
    FileStore::debugFileStore.Detail("PushThread: Sending %lu files upstream with their contents\n",
                                     files.Entries().size());
    const unsigned int error = CallDevice(parentUrl, "FileStoreReceiveContents", call);
    const bool isAnswered = error == kKelOk && call.Count(kValueFiles) == files.Entries().size();
    const bool isUnusable = error == kKelOk || error == kKelErrorUnknownAction || error == kKelErrorBadAnswer;
    if (!isAnswered && isUnusable) {
        // It has become an older agent, or takes less in one call: the next round offers them one by one.
        refuserOfContents_ = std::exchange(takerOfContents_, {});
        ++rowsTaken_;
        return true;
    }
    if (!isAnswered) return TakeAnswer(files.Entries().front(), error, {}, parentUrl, sent, reachedParent);
    for (std::uint32_t i = 0; const FileStoreEntry& entry : files.Entries()) {
        const KelContainer& answer = call.GetContainer(kValueFiles, i++);
        const auto result = static_cast<unsigned int>(answer.GetInt32(kValueResult));
        if (result == kKelOk && answer.GetBool(kValueContentHeld))
            KelTransfers(KelDirection::Up, KelFlow::Out, KelTransport::Http)
                .AddFile(static_cast<std::uint64_t>(entry.FileSize));
        if (!TakeAnswer(entry, result, answer, parentUrl, sent, reachedParent)) return false;
    }
    return true;
}

/// What the parent has said to the offer of a file. False when the batch must end here.
bool FileStorePushThread::TakeAnswer(const FileStoreEntry& entry, unsigned int error,
                                     const KelContainer& answer, const KelString& parentUrl, SentFiles& sent,
                                     bool& reachedParent) {
    if (error == kKelOk && answer.GetBool(kValueContentHeld)) {
        Reasons().MovedOn(Side::Upstream, entry.FileId);
        sent.push_back({entry.FileId, kStatusAvailable, entry.FileURL});
        NoteUploadedInventory(entry);
        reachedParent = true;
        return true;
    }
    const KelString url = answer.GetString(kValueFileUrl);
    if (error != kKelOk || !IsUrlPath(url)) {
        const unsigned int refusal = error != kKelOk ? error : unsigned{kKelErrorBadInput};
        Reasons().Note(Side::Upstream, entry.FileId, WaitingStep::Send,
                       ReasonOfCall(refusal, PeerName(parentUrl)));
        return HandleRefusal(entry, refusal);
    }
    Reasons().MovedOn(Side::Upstream, entry.FileId);
    sent.push_back({entry.FileId, kStatusUploading, url});
    reachedParent = true;
    return true;
}

/// A parent that knows another GUID scheme refuses single files, the others may pass; any other refusal ends
/// the batch. A relayed file of a foreign scheme goes no further. The others are offered again later; a
/// file of this device gets the present device URL as its source, because the GUID may have changed. True
/// when the batch goes on.
bool FileStorePushThread::HandleRefusal(const FileStoreEntry& entry, unsigned int error) {
    FileStore::debugFileStore.Detail("PushThread: File send returned %u\n", error);
    const bool wrongScheme = error == kKelErrorGuidScheme;
    const bool isRelayed = !entry.FirstRelay.empty();
    if (wrongScheme && isRelayed) {
        if (UpdateFileStatus(Side::Upstream, entry.FileId, entry.FileStatus, kStatusAvailable,
                             NextTry::AtOnce))
            ++rowsTaken_;
        return true;
    }
    if (!isRelayed) {
        if (wrongScheme) FileStore::UpdateGuidScheme();
        const KelString ownUrl = OurDeviceUrl();
        if (!ownUrl.empty()) SetSourceDevice(Side::Upstream, entry.FileId, ownUrl);
    }
    if (UpdateFileStatus(Side::Upstream, entry.FileId, entry.FileStatus, kStatusToBeUploaded,
                         NextTry::AfterTimeout))
        ++rowsTaken_;
    FileStore::debugFileStore.Detail("PushThread: File sending returned %u\n", error);
    ReportParentError(error);
    return wrongScheme;
}

#include "filestore/up/handle_thread.h"

#include <chrono>
#include <utility>

#include "filestore/db/content_rows.h"
#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/exchange/file_record.h"
#include "filestore/packages/managed_relay_package.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/upload_policy.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/transfer_counters.h"
#include "kelcore/shared_content.h"

using namespace filestore;

namespace {

constexpr unsigned int kBatchSize = 50;
/// Upstream, the answers for so many batches count together, or for those that begin within this time.
constexpr unsigned int kMostBatches = 8;
constexpr std::chrono::milliseconds kTimeOfBatches{200};
constexpr std::int64_t kLeastShared = 4096;  ///< bytes; smaller files have nothing to share

const char* CallbackOf(bool isLocal, Side side) {
    if (side == Side::Upstream) return "FileStoreCallbackCopyUpstream";
    return isLocal ? "FileStoreCallbackReceivedFile" : "FileStoreCallbackCopyDownstream";
}

/// Devices often send the same content up: all names of it share one file, see ShareContent. Whatever comes
/// into the upstream store replaces a file as a whole.
void ShareEqualContent(const FileStoreEntry& entry, const KelString& path) {
    if (entry.FileSize < kLeastShared || !PathCreate(StoreWorkFolder())) return;
    for (const FileStoreEntry& other : SelectFilesLike(entry))
        if (ShareContent(path, ContentPath(other, Side::Upstream), StoreWorkFolder())) return;
}

/// The action of the consumer that gave this answer.
KelString FirstWithAnswer(const KelContainer& results, unsigned int code) {
    for (std::size_t i = 0; i < results.GetNameCount(); ++i)
        if (static_cast<unsigned int>(results.GetInt32(results.GetName(i), -1)) == code)
            return results.GetName(i);
    return {};
}

KelContainer RequestFor(const FileStoreEntry& missing) {
    FileOffer request;
    request.key = missing.Key();
    request.info = FileInfoOf(missing);
    request.bypass = missing.Bypass;
    request.upstream = missing.Upstream;
    request.priority = static_cast<std::int32_t>(missing.Priority);
    return request.ToContainer();
}

}  // namespace

/// The FileIds of a batch by what the consumers answered.
struct FileStoreHandleThread::Answers {
    IdList available;
    IdList upload;
    IdList retry;
    KelVector<std::uint64_t> putOff;   ///< the same
    KelVector<std::uint64_t> taken;    ///< those of `available` and `upload`
    KelVector<KelString> typesToSend;  ///< of `upload`
    std::uint64_t bytesKept = 0;       ///< the content of `available`
};

FileStoreHandleThread::FileStoreHandleThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

bool FileStoreHandleThread::DoWork() {
    putOff_.clear();
    bool busy = true;
    while (busy) {
        busy = false;
        const std::uint64_t movedBefore = rowsMovedOn_;
        for (const Side side : {Side::Downstream, Side::Upstream}) {
            if (CheckCancelled(false)) return false;
            busy |= LocalRequestFile(side);
            if (CheckCancelled(false)) return false;
            busy |= HandleFile(side);
        }
        if (rowsMovedOn_ == movedBefore) break;
    }
    return busy;
}

bool FileStoreHandleThread::LocalRequestFile(Side side) {
    FileStore::debugFileStore.Trace("HandleThread: Looking for files to request locally\n");
    const FileRows rows = SelectMissingFile(side);
    if (rows.empty()) return false;
    const std::uint64_t fileId = rows.front().FileId;

    KelContainer results;
    CallbackDbTrigger("FileStoreCallbackFileRequest", RequestFor(rows.front()), results);
    // A consumer may supply the file during the call, and an offer may arrive at any moment: the status is
    // read again and changed under the lock.
    const KelLock lock(FileStoreGetDatabase(side).mutex);
    if (FileStore::CheckHandlerResult(results, kKelAnswerWillProvide)) SetSuppliedByConsumer(side, fileId);
    const KelString status = ReadFileStatus(side, fileId);
    if (status == kStatusMissing)
        return DecideMissing(fileId, side, FileStore::CheckHandlerResult(results, kKelAnswerRequestKnown));
    ++rowsMovedOn_;
    if (status == kStatusAvailable || status == kStatusNotRelaysChild) FileStore::WakeWorker(Worker::Notify);
    return true;
}

/// No module of this device supplies the file: the parent is asked, or on the master, which has none, the
/// request ends. The caller has held the mutex of the database since it read the status.
bool FileStoreHandleThread::DecideMissing(std::uint64_t fileId, Side side, bool isKnownToConsumer) {
    if (ActionDbIsActionRegistered("QuarnelDbRunScript")) {
        if (DeleteFileRow(side, fileId)) ++rowsMovedOn_;
        if (!isKnownToConsumer)
            FileStore::debugFileStore.Error(
                "HandleThread: File request for non-existant file, deleting request\n");
        return false;
    }
    if (UpdateFileStatus(side, fileId, kStatusToBeRequested, NextTry::AtOnce)) ++rowsMovedOn_;
    FileStore::WakeWorker(Worker::Push);
    return true;
}

bool FileStoreHandleThread::HandleFile(Side side) {
    FileStore::debugFileStore.Trace("HandleThread: Looking for files to handle \n");
    Answers answers;
    if (!HandOverBatches(side, answers)) {
        FileStore::debugFileStore.Trace("HandleThread: Nothing found to handle\n");
        return false;
    }
    if (side == Side::Upstream) SyncConsumers(answers);
    // A batch that was cut short keeps its rows and is handed over again after the restart.
    if (!CheckCancelled(false)) ApplyAnswers(answers, side);
    for (const KelString& type : answers.typesToSend)
        WakeToSend(type);
    if (side == Side::Downstream && !answers.available.IsEmpty()) FileStore::WakeWorker(Worker::Notify);
    return true;
}

/// False when there was no file.
bool FileStoreHandleThread::HandOverBatches(Side side, Answers& answers) {
    const auto end = std::chrono::steady_clock::now() + kTimeOfBatches;
    const unsigned int most = side == Side::Upstream ? kMostBatches : 1;
    bool wasAny = false;
    KelVector<FileToHandle> batch;
    for (unsigned int i = 0; i < most && std::chrono::steady_clock::now() < end; ++i) {
        batch = SelectFilesToHandle(side, kBatchSize, batch.empty() ? nullptr : &batch.back().file);
        for (const auto& [entry, isLocal] : batch) {
            if (putOff_.contains({side, entry.FileId})) continue;
            wasAny = true;
            if (CheckCancelled(false)) return true;
            if (IsManagedRelayPackage(entry))
                rowsMovedOn_ += RepublishManagedRelayPackage(entry, side) ? 1 : 0;
            else
                HandOver(entry, isLocal, side, answers);
        }
        if (batch.size() < kBatchSize) break;
    }
    return wasAny;
}

void FileStoreHandleThread::HandOver(const FileStoreEntry& entry, bool isLocal, Side side, Answers& answers) {
    FileStore::debugFileStore.Trace("HandleThread: Handling %S\n", entry.Key().Text());
    const FileInUse inUse(side, entry);
    const KelString path = ContentPath(entry, side);
    if (FileIsMissing(path)) {
        FileStore::debugFileStore.Error("HandleThread: File %S is not present\n", entry.Key().Text());
        if (DeleteFileRow(side, entry.FileId)) ++rowsMovedOn_;
        return;
    }
    if (side == Side::Upstream && !entry.ExternalFile) ShareEqualContent(entry, path);
    FileOffer description = FileDescriptionOf(entry);
    description.filePath = path;
    KelContainer arguments = description.ToContainer();
    if (side == Side::Upstream) arguments.SetBool(kValueSyncFollows, true);
    KelContainer results;
    CallbackDbTrigger(CallbackOf(isLocal, side), arguments, results);
    if (FileStore::CheckHandlerResult(results, kKelAnswerTryLater)) {
        Reasons().Note(
            side, entry.FileId, WaitingStep::Handle,
            {.code = Waiting::ConsumerLater, .detail = FirstWithAnswer(results, kKelAnswerTryLater)});
        answers.retry.Add(entry.FileId);
        answers.putOff.push_back(entry.FileId);
        return;
    }
    Reasons().MovedOn(side, entry.FileId);
    answers.taken.push_back(entry.FileId);
    if (FileStore::CheckHandlerResult(results, kKelAnswerStaysHere) || side == Side::Downstream) {
        answers.bytesKept += static_cast<std::uint64_t>(entry.FileSize);
        answers.available.Add(entry.FileId);
    } else {
        answers.upload.Add(entry.FileId);
        answers.typesToSend.push_back(entry.FileType);
    }
}

/// Has the consumers put what they have taken of the batch on the disk: only then their answers count. False
/// when one could not; the whole batch is handed over again then.
bool FileStoreHandleThread::SyncConsumers(Answers& answers) {
    if (answers.available.IsEmpty() && answers.upload.IsEmpty()) return true;
    KelContainer results;
    if (CallbackDbTrigger("FileStoreCallbackSyncUpstream", {}, results) == kKelOk) return true;
    for (const IdList* const taken : {&answers.available, &answers.upload})
        answers.retry.Append(*taken);
    for (const std::uint64_t fileId : answers.taken) {
        Reasons().Note(
            Side::Upstream, fileId, WaitingStep::Handle,
            {.code = Waiting::ConsumerLater, .detail = FirstWithAnswer(results, kKelAnswerTryLater)});
        answers.putOff.push_back(fileId);
    }
    answers.available = answers.upload = IdList();
    answers.typesToSend.clear();
    answers.bytesKept = 0;
    return false;
}

void FileStoreHandleThread::ApplyAnswers(const Answers& answers, Side side) {
    if (UpdateFileStatus(side, answers.available, kStatusAvailable, NextTry::AtOnce)) {
        rowsMovedOn_ += answers.available.Count();
        // Files whose rows have not changed are handed over again, and counted then.
        const auto direction = side == Side::Upstream ? KelDirection::Up : KelDirection::Down;
        KelTransferCounters& kept = KelTransfers(direction, KelFlow::Out, KelTransport::Local);
        kept.files.Add(answers.available.Count());
        kept.bytes.Add(answers.bytesKept);
    }
    if (UpdateFileStatus(side, answers.upload, kStatusToBeUploaded, NextTry::AtOnce))
        rowsMovedOn_ += answers.upload.Count();
    if (!UpdateFileStatus(side, answers.retry, kStatusToBeHandled, NextTry::AfterTimeout)) return;
    rowsMovedOn_ += answers.retry.Count();
    for (const std::uint64_t fileId : answers.putOff)
        putOff_.insert({side, fileId});
}

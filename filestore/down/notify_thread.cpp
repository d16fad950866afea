#include "filestore/down/notify_thread.h"

#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/db/handed_over_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/announcement.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/external_content.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/settings.h"
#include "filestore/state/store_layout.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/transfer_counters.h"

using namespace filestore;

namespace {

constexpr unsigned int kBatchSize = 50;

/// When a target is due again whose device could not be tried because too many silent ones were.
constexpr std::int64_t kPutOffSeconds = 5;

/// One at a time while multicast shares a limited link: the multicast window, not the downward one, throttles
/// a batch that is asked for by itself.
unsigned int BatchSize() {
    return MulticastPlanner::IsWindowOpen() ? 1 : kBatchSize;
}

DueTargets DueNow(DueTargets::Where where, unsigned int limit) {
    DueTargets wanted;
    wanted.due = FileStoreDueBefore(FileStore::ulTimeout);
    wanted.where = where;
    wanted.windowClosed = FileStore::bmTrackUsageDown.TransfersAreDisabled();
    wanted.limit = limit;
    return wanted;
}

/// A target that multicast has left out. It is not woken again, and the transport mode for it is chosen anew,
/// whatever its row says.
KelVector<FileTarget> SelectSingle(unsigned int fileId, unsigned int targetId) {
    FileStore::debugFileStore.Trace("NotifyThread: Get file rejected by multicast\n");
    KelVector<FileTarget> rows = SelectTarget(fileId, targetId);
    for (FileTarget& row : rows) {
        row.target.WakeUpDevice = 0;
        row.file.TransportMode.clear();
    }
    return rows;
}

void NotifyLocal(const FileTarget& row, AnnouncementOutcome& outcome) {
    FileStore::debugFileStore.Detail("NotifyThread: Notifying local device about %S/%S/%S\n",
                                     row.file.FileType, row.file.FileLabel, row.file.FileName);
    FileOffer announcement = BuildAnnouncement(row);
    announcement.filePath = ContentPath(row.file, Side::Downstream);
    KelContainer values = announcement.ToContainer();
    KelContainer results;
    CallbackDbTrigger("FileStoreCallbackReceivedFile", values, results);
    KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Local)
        .AddFile(static_cast<std::uint64_t>(row.file.FileSize));
    outcome.delivered.Add(row.target.TargetId);
}

/// False, with the target to be removed, when its device can never be called.
bool CheckDestination(const FileTarget& row, AnnouncementOutcome& outcome) {
    FileStore::debugFileStore.Detail("NotifyThread: Notifying %S about %S/%S/%S\n", row.target.DeviceGUID,
                                     row.file.FileType, row.file.FileLabel, row.file.FileName);
    if (IsValidDestination(row.target.DeviceGUID)) return true;
    FileStore::debugFileStore.Warning("NotifyThread: Will ignore invalid destination address\n");
    outcome.delivered.Add(row.target.TargetId);
    return false;
}

void NotifyRemote(const FileTarget& row, AnnouncementOutcome& outcome) {
    if (!CheckDestination(row, outcome)) return;
    const unsigned int error = AnnounceTo(row);
    NoteCall(row.target, error);
    if (error == kKelOk) {
        outcome.announced.Add(row.target.TargetId);
        return;
    }
    outcome.failed.Add(row.target.TargetId);
    outcome.failedDevices.push_back(row.target.DeviceGUID);
}

/// The rows by device, in the order in which the devices come first; rows that can never be announced go to
/// the outcome.
KelVector<KelVector<FileTarget>> ByDevice(KelVector<FileTarget> rows, AnnouncementOutcome& outcome) {
    KelVector<KelVector<FileTarget>> devices;
    KelHash<KelString, std::size_t> known;
    for (FileTarget& row : rows) {
        if (ForgetIfGone(row.file)) continue;
        if (!ReplaceByRuleFile(row)) {
            outcome.failed.Add(row.target.TargetId);
        } else if (CheckDestination(row, outcome)) {
            const auto [device, isNew] = known.try_emplace(row.target.DeviceGUID, devices.size());
            if (isNew) devices.emplace_back();
            devices[device->second].push_back(std::move(row));
        }
    }
    return devices;
}

/// Keeps files from being removed while they are announced, and drops the rows of those that are gone or have
/// lost their content.
KelVector<FileInUse> Use(KelVector<FileTarget>& rows) {
    KelVector<FileInUse> inUse;
    for (const FileTarget& row : rows)
        inUse.emplace_back(Side::Downstream, row.file);
    std::erase_if(rows, [](const FileTarget& row) {
        const auto status = LookUpStatus(Side::Downstream, row.file.FileId);
        return (status && status->empty()) || ForgetIfGone(row.file);
    });
    return inUse;
}

/// Remembers what is about to be handed over to modules of this device. Rule files are made anew when they
/// are missed.
bool RememberLocal(const KelVector<FileTarget>& rows) {
    IdList fileIds;
    for (const FileTarget& row : rows)
        if (row.target.DeviceGUID.empty() && row.file.FileStatus == kStatusAvailable)
            fileIds.Add(row.file.FileId);
    return RememberHandedOver(fileIds);
}

/// False when it could not be written.
bool Record(const AnnouncementOutcome& outcome) {
    if (outcome.IsEmpty()) return true;
    const std::int64_t now = std::time(nullptr);
    const std::int64_t soon = FileStoreDueBefore(FileStore::ulTimeout) + kPutOffSeconds;
    return RecordAnnouncements(outcome, {now, TimeOfAnnounced(now), soon});
}

}  // namespace

FileStoreNotifyThread::FileStoreNotifyThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

bool FileStoreNotifyThread::DoWork() {
    bool worked = false;
    while (!CheckCancelled(false) && NotifyTargets())
        worked = true;
    return worked;
}

bool FileStoreNotifyThread::NotifyTargets() {
    FileStore::debugFileStore.Trace("NotifyThread: Looking for files to send\n");
    if (!MulticastPlanner::IsWindowOpen()) return NotifyUnicastTargets(0, 0) != 0;
    FileStore::debugFileStore.Trace("NotifyThread: Multicast window defined.\n");
    return NotifyBesideMulticast();
}

void FileStoreNotifyThread::ThreadMain() {
    FileThreadBase::ThreadMain();
    calls_.Finish();
}

int FileStoreNotifyThread::NotifyUnicastTargets(unsigned int fileId, unsigned int targetId) {
    FileStore::debugFileStore.Trace("NotifyThread: Looking for files to send downstream\n");
    const bool worked = fileId != 0 && targetId != 0 ? NotifySingle(fileId, targetId) : NotifyBatch();
    return worked ? 1 : 0;
}

bool FileStoreNotifyThread::NotifySingle(unsigned int fileId, unsigned int targetId) {
    KelVector<FileTarget> rows = SelectSingle(fileId, targetId);
    const KelVector<FileInUse> inUse = Use(rows);
    if (rows.empty()) {
        FileStore::debugFileStore.Detail("NotifyThread: Nothing found to notify\n");
        return false;
    }
    FileTarget& row = rows.front();
    const bool isLocal = row.target.DeviceGUID.empty();
    if (isLocal && !RememberLocal(rows)) return false;
    AnnouncementOutcome outcome;
    if (!ReplaceByRuleFile(row))
        outcome.failed.Add(row.target.TargetId);
    else if (isLocal)
        NotifyLocal(row, outcome);
    else
        NotifyRemote(row, outcome);
    return Record(outcome);
}

/// Records what the calls have come to since the last batch, and marks the targets that are due. False when
/// nothing can be recorded.
bool FileStoreNotifyThread::PrepareBatch() {
    if (!Record(calls_.Collect())) return false;
    // When the database takes no changes, those marked before are still announced.
    MarkDueTargets(FileStoreDueBefore(FileStore::ulTimeout),
                   LatestPossibleTime(TimeOfAnnounced(std::time(nullptr))));
    return true;
}

/// Targets on this device come first and never wait for a call to another one.
bool FileStoreNotifyThread::NotifyBatch() {
    if (!PrepareBatch()) return false;
    const unsigned int limit = BatchSize();
    KelVector<FileTarget> local = SelectDueTargets(DueNow(DueTargets::Where::ThisDevice, limit));
    if (!local.empty() && !NotifyThisDevice(local)) return false;
    const auto left = static_cast<unsigned int>(limit - local.size());
    if (left == 0 || CheckCancelled(false)) return true;
    if (calls_.IsFull()) {
        calls_.Wait(patience, AnnouncementCalls::For::All);
        return Record(calls_.Collect());
    }
    const bool hasWithdrawn = WithdrawFiles(kBatchSize);
    DueTargets wanted = DueNow(DueTargets::Where::OtherDevices, left);
    wanted.except = calls_.BusyDevices();
    KelVector<FileTarget> remote = SelectDueTargets(wanted);
    if (local.empty() && remote.empty())
        FileStore::debugFileStore.Detail("NotifyThread: Nothing found to notify\n");
    return remote.empty() ? hasWithdrawn || !local.empty() : NotifyOtherDevices(std::move(remote));
}

/// Withdrawals are small, so that closed windows do not hold them back. False when there were none, or when
/// the outcome was not recorded.
bool FileStoreNotifyThread::WithdrawFiles(unsigned int limit) {
    std::map<KelString, KelVector<FileWithdrawal>> byDevice;
    for (FileWithdrawal& row :
         SelectDueWithdrawals(FileStoreDueBefore(FileStore::ulTimeout), calls_.BusyDevices(), limit))
        byDevice[row.deviceGuid].push_back(std::move(row));
    bool hasBegun = false;
    for (auto& [device, rows] : byDevice)
        if (!CheckCancelled(false) && calls_.Begin(std::move(rows)) == AnnouncementCalls::Begun::Yes)
            hasBegun = true;
    if (!hasBegun) return false;
    calls_.Wait(patience, AnnouncementCalls::For::All);
    return Record(calls_.Collect());
}

/// The most urgent due targets, by what is to become of them.
struct FileStoreNotifyThread::Division {
    bool isEmpty = true;
    bool hasFailed = false;  ///< the database takes no changes
    KelVector<FileTarget> unicast;
    std::optional<FileStoreEntry> multicast;  ///< the first file that can be sent to a group
};

FileStoreNotifyThread::Division FileStoreNotifyThread::DivideDueTargets() {
    DueTargets wanted = DueNow(DueTargets::Where::OtherDevices, kBatchSize);
    wanted.except = calls_.BusyDevices();
    wanted.multicast = {FileStore::ulMulticastMinimumFileSize, FileStore::ulMulticastRetry};
    Division parts;
    KelHash<std::uint64_t, MulticastPlanner::Way> ways;
    for (FileTarget& row : SelectDueTargets(wanted)) {
        parts.isEmpty = false;
        // Further files that are to be sent to a group are looked at when this one is on its way.
        const auto [way, isNew] = ways.try_emplace(row.file.FileId, MulticastPlanner::Way::Postponed);
        if (isNew && (!parts.multicast || !MulticastPlanner::IsLarge(row.file)))
            way->second = planner_.Choose(row);
        if (way->second == MulticastPlanner::Way::Failed) parts.hasFailed = true;
        if (way->second == MulticastPlanner::Way::Multicast) parts.multicast = row.file;
        if (way->second == MulticastPlanner::Way::Unicast) parts.unicast.push_back(std::move(row));
    }
    return parts;
}

/// Files that are postponed only make way for the next ones, so the selection is repeated after them.
bool FileStoreNotifyThread::NotifyBesideMulticast() {
    if (!PrepareBatch()) return false;
    KelVector<FileTarget> local = SelectDueTargets(DueNow(DueTargets::Where::ThisDevice, kBatchSize));
    if (!local.empty() && !NotifyThisDevice(local)) return false;
    const bool hasWithdrawn = WithdrawFiles(kBatchSize);
    while (!CheckCancelled(false)) {
        if (calls_.IsFull()) {
            calls_.Wait(patience, AnnouncementCalls::For::All);
            return Record(calls_.Collect());
        }
        Division parts = DivideDueTargets();
        const bool hasUnicast = !parts.unicast.empty();
        // Before the transfer is planned, which takes longer.
        if (hasUnicast && !NotifyOtherDevices(std::move(parts.unicast))) parts.hasFailed = true;
        const auto planned =
            parts.multicast ? PlanTransfer(*parts.multicast) : MulticastPlanner::Way::Postponed;
        if (planned == MulticastPlanner::Way::Multicast) return true;
        if (parts.hasFailed || planned == MulticastPlanner::Way::Failed) return false;
        if (hasUnicast) return true;
        if (parts.isEmpty) break;
        LookAgainIn(MulticastPlanner::kPostponed);
    }
    return hasWithdrawn || !local.empty();
}

MulticastPlanner::Way FileStoreNotifyThread::PlanTransfer(const FileStoreEntry& file) {
    const MulticastPlanner::Way way = planner_.Prepare(file);
    if (way == MulticastPlanner::Way::Multicast) {
        Sleep(MulticastPlanner::waitMilliseconds);
        FileStore::WakeWorker(Worker::Multicast);
    }
    return way;
}

/// False when nothing was recorded, in this and the next.
bool FileStoreNotifyThread::NotifyThisDevice(KelVector<FileTarget>& rows) {
    const KelVector<FileInUse> inUse = Use(rows);
    if (!RememberLocal(rows)) return false;
    AnnouncementOutcome outcome;
    for (FileTarget& row : rows) {
        if (CheckCancelled(false)) break;
        if (ReplaceByRuleFile(row))
            NotifyLocal(row, outcome);
        else
            outcome.failed.Add(row.target.TargetId);
    }
    return Record(outcome);
}

bool FileStoreNotifyThread::NotifyOtherDevices(KelVector<FileTarget> rows) {
    AnnouncementOutcome outcome;
    for (KelVector<FileTarget>& ofDevice : ByDevice(std::move(rows), outcome)) {
        // The others stay due: put off, they would wait behind everything that silent devices have waiting.
        if (CheckCancelled(false) || calls_.IsFull()) break;
        IdList ids;
        for (const FileTarget& row : ofDevice)
            ids.Add(row.target.TargetId);
        if (calls_.Begin(std::move(ofDevice)) == AnnouncementCalls::Begun::NoRoom) outcome.putOff.Append(ids);
    }
    calls_.Wait(patience, AnnouncementCalls::For::Prompt);
    outcome.Append(calls_.Collect());
    return Record(outcome);
}

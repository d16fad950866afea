#include "filestore/down/notify_thread.h"

#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/handed_over_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/announcement.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/settings.h"
#include "filestore/state/store_layout.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr unsigned int kBatchSize = 50;

/// One at a time while multicast shares a limited link: the multicast window, not the downward one, throttles
/// the announcements.
unsigned int BatchSize() {
    int frameSize = 0;
    FileStoreBandwidthManager& multicast = FileStore::bmTrackUsageMulticast;
    return multicast.BandwidthIsLimited() && multicast.GetRate(frameSize) != 0 ? 1 : kBatchSize;
}

KelVector<FileTarget> SelectBatch() {
    const std::int64_t now = std::time(nullptr);
    return SelectDueTargets(FileStoreDueBefore(FileStore::ulTimeout),
                            LatestPossibleTime(TimeOfAnnounced(now)),
                            FileStore::bmTrackUsageDown.TransfersAreDisabled(), BatchSize());
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
    outcome.delivered.Add(row.target.TargetId);
}

void NotifyRemote(const FileTarget& row, AnnouncementOutcome& outcome) {
    const FileStoreTarget& target = row.target;
    FileStore::debugFileStore.Detail("NotifyThread: Notifying %S about %S/%S/%S\n", target.DeviceGUID,
                                     row.file.FileType, row.file.FileLabel, row.file.FileName);
    if (!IsValidDestination(target.DeviceGUID)) {
        FileStore::debugFileStore.Warning("NotifyThread: Will ignore invalid destination address\n");
        outcome.delivered.Add(target.TargetId);
        return;
    }
    KelString url, guid;
    FileStore::GetDeviceUrl(target.DeviceGUID, url, guid);
    FileOffer announcement = BuildAnnouncement(row);
    announcement.url = AnnouncedUrl(row.file);
    KelContainer values = announcement.ToContainer();
    const unsigned int error = CallDevice(url, "FileStoreReceiveFile", values);
    if (error == kKelOk) {
        outcome.announced.Add(target.TargetId);
        return;
    }
    outcome.failed.Add(target.TargetId);
    outcome.failedDevices.push_back(target.DeviceGUID);
    WakeUpTarget(target, error);
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

/// False when nothing was written.
bool Record(const AnnouncementOutcome& outcome) {
    const std::int64_t now = std::time(nullptr);
    return RecordAnnouncements(outcome, now, TimeOfAnnounced(now));
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
    return NotifyUnicastTargets(0, 0) != 0;
}

int FileStoreNotifyThread::NotifyUnicastTargets(unsigned int fileId, unsigned int targetId) {
    FileStore::debugFileStore.Trace("NotifyThread: Looking for files to send downstream\n");
    KelVector<FileTarget> rows =
        fileId != 0 && targetId != 0 ? SelectSingle(fileId, targetId) : SelectBatch();
    if (rows.empty()) {
        FileStore::debugFileStore.Detail("NotifyThread: Nothing found to notify\n");
        return 0;
    }
    if (!RememberLocal(rows)) return 0;
    AnnouncementOutcome outcome;
    for (auto row = rows.begin(); row != rows.end() && !CheckCancelled(false); ++row) {
        if (!ReplaceByRuleFile(*row))
            outcome.failed.Add(row->target.TargetId);
        else if (row->target.DeviceGUID.empty())
            NotifyLocal(*row, outcome);
        else
            NotifyRemote(*row, outcome);
    }
    return Record(outcome) ? 1 : 0;
}

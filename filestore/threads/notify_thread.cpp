#include "filestore/threads/notify_thread.h"

#include <ctime>

#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/threads/notification.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"

using namespace filestore;

/// The lists of one run, each as text for an IN clause.
struct FileStoreNotifyThread::Outcome {
    KelString deleted;        ///< TargetId: told by a callback, or never reachable
    KelString notified;       ///< TargetId: the call was answered with success
    KelString failedTargets;  ///< TargetId
    KelString failedDevices;  ///< DeviceGUID, quoted

    static void Add(KelString& list, const KelString& item) {
        if (!list.empty()) list += ", ";
        list += item;
    }
};

namespace {

constexpr unsigned int kBatchSize = 50;

std::int64_t Now() {
    return std::time(nullptr);
}

/// One at a time while multicast shares a limited link: the multicast window, not the downward one, throttles
/// the announcements.
unsigned int BatchSize() {
    int frameSize = 0;
    FileStoreBandwidthManager& multicast = FileStore::bmTrackUsageMulticast;
    return multicast.BandwidthIsLimited() && multicast.GetRate(frameSize) != 0 ? 1 : kBatchSize;
}

/// While the window downwards is closed, only bypass files and targets on this device are announced.
KelString OpenWindowFilter() {
    if (!FileStore::bmTrackUsageDown.TransfersAreDisabled()) return {};
    return KelFormat("AND ((%s = %u) OR (%s = ''))", kBypass, 1U, kDeviceGuid);
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
    const auto result = fileId != 0 && targetId != 0 ? SelectTarget(fileId, targetId) : SelectDueTargets();
    if (result == nullptr || result->GetRowCount() == 0) {
        FileStore::debugFileStore.Detail("NotifyThread: Nothing found to notify\n");
        return 0;
    }
    Outcome outcome;
    for (std::size_t i = 0; i < result->GetRowCount() && !CheckCancelled(false); ++i) {
        NotificationRow row = ReadNotificationRow(*result, i);
        if (!ReplaceByRuleFile(row))
            Outcome::Add(outcome.failedTargets, KelFormat("%u", row.targetId));
        else if (row.deviceGuid.empty())
            NotifyLocal(row, outcome);
        else
            NotifyRemote(row, outcome);
    }
    return Record(outcome) ? 1 : 0;
}

std::shared_ptr<const DBResult> FileStoreNotifyThread::SelectTarget(unsigned int fileId,
                                                                    unsigned int targetId) {
    FileStore::debugFileStore.Trace("NotifyThread: Get file rejected by multicast\n");
    return FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s "
        "= %u AND %s = %u ORDER BY %s ASC LIMIT 1",
        kFileId, kFilePath, kFileUrl, kExternalFile, kFileType, kFileLabel, kFileName, kFileChecksum,
        kSourceDevice, kFirstRelay, kDevicePath, kFileInfo, kDeviceGuid, kKeepCopy, kFileSize, kPriority,
        kBypass, kTargetId, kFileStatus, kViewFiles, kFileId, fileId, kTargetId, targetId, kFileId));
}

std::shared_ptr<const DBResult> FileStoreNotifyThread::SelectDueTargets() {
    const std::int64_t due = Now() - FileStore::ulTimeout;
    return FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT %s.%s AS %s,  %s, %s, %s,  %s, %s, %s,  %s, %s, %s,  %s, %s, %s, %s,  %s, %s, %s,  %s, %s, "
        "%s, %s  FROM %s  JOIN %s ON %s.%s = %s.%s AND %s < %ld WHERE %s IN ('%s', '%s') AND %s < %ld AND "
        "(%s = 0 AND %s <> 0) %S  ORDER BY %s DESC, ((0.33 * %s) + (0.67 * %s)) ASC, %s.%s ASC LIMIT %u",
        kTableFiles, kFileId, kFileId, kFilePath, kFileUrl, kExternalFile, kFileType, kFileLabel, kFileName,
        kFileChecksum, kSourceDevice, kFirstRelay, kDevicePath, kFileInfo, kDeviceGuid, kWakeUpDevice,
        kKeepCopy, kFileSize, kPriority, kTargetId, kBypass, kTransportMode, kFileStatus, kTableFiles,
        kTableTargets, kTableFiles, kFileId, kTableTargets, kFileId, kLastNotifyTime, due, kFileStatus,
        kStatusAvailable, kStatusNotRelaysChild, kLastStatusChangeTime, due, kUpstream, kAcknowledged,
        OpenWindowFilter(), kPriority, kCreateTime, kLastNotifyTime, kTableFiles, kFileId, BatchSize()));
}

void FileStoreNotifyThread::NotifyLocal(const NotificationRow& row, Outcome& outcome) {
    FileStore::debugFileStore.Detail("NotifyThread: Notifying local device about %S/%S/%S\n", row.type,
                                     row.label, row.name);
    KelContainer notification = BuildNotification(row);
    notification.SetString("FilePath", AnnouncedPath(row));
    KelContainer results;
    CallbackDbTrigger("FileStoreCallbackReceivedFile", notification, results);
    Outcome::Add(outcome.deleted, KelFormat("%u", row.targetId));
}

void FileStoreNotifyThread::NotifyRemote(const NotificationRow& row, Outcome& outcome) {
    FileStore::debugFileStore.Detail("NotifyThread: Notifying %S about %S/%S/%S\n", row.deviceGuid, row.type,
                                     row.label, row.name);
    const KelString targetId = KelFormat("%u", row.targetId);
    if (!IsValidDestination(row.deviceGuid)) {
        FileStore::debugFileStore.Warning("NotifyThread: Will ignore invalid destination address\n");
        Outcome::Add(outcome.deleted, targetId);
        return;
    }
    KelString url, guid;
    FileStore::GetDeviceUrl(row.deviceGuid, url, guid);
    KelContainer notification = BuildNotification(row);
    notification.SetString("FileURL", AnnouncedUrl(row));
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, url, "FileStoreReceiveFile", notification, 0, -1, -1, nullptr);
    if (error == 0) {
        Outcome::Add(outcome.notified, targetId);
        return;
    }
    Outcome::Add(outcome.failedTargets, targetId);
    Outcome::Add(outcome.failedDevices, KelFormat("'%Q'", row.deviceGuid));
    WakeUpTarget(row, error);
}

/// False when nothing was written.
bool FileStoreNotifyThread::Record(const Outcome& outcome) {
    const KelLock lock(FileStore::mutexDownstream);
    DBConnection& connection = *FileStore::pDbConnectionDownstream;
    DBTransaction transaction(connection);
    const auto removeTargets = [&connection](const KelString& list) {
        return list.empty() || connection.Query(KelFormat("DELETE FROM %s WHERE %s IN (%S)", kTableTargets,
                                                          kTargetId, list)) != nullptr;
    };
    const auto setNotifyTime = [&connection](std::int64_t time, const char* column, const KelString& list) {
        return list.empty() ||
               connection.Query(KelFormat("UPDATE %s SET %s = %ld WHERE %s IN (%S)", kTableTargets,
                                          kLastNotifyTime, time, column, list)) != nullptr;
    };
    return transaction.IsOpen() && removeTargets(outcome.deleted) &&
           setNotifyTime(Now(), kTargetId, outcome.failedTargets) &&
           setNotifyTime(Now(), kDeviceGuid, outcome.failedDevices) &&
           setNotifyTime(Now() + 4 * static_cast<std::int64_t>(FileStore::ulTimeout), kTargetId,
                         outcome.notified) &&
           transaction.Commit();
}

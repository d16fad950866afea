#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/database.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/db/files_selection.h"

namespace filestore {
class RowReader;

/// One row of the table Targets (downstream database): a device of the next level, or this device, that waits
/// for a file.
struct FileStoreTarget {
    /// The columns as a SELECT lists them for Read.
    static constexpr const char* kColumns =
        "Targets.TargetId, Targets.FileId, DeviceGUID, DevicePath, TargetCreateTime, LastNotifyTime, "
        "WakeUpDevice";
    void Read(RowReader& row);
    bool operator==(const FileStoreTarget&) const = default;

    std::uint64_t TargetId = 0;  ///< 0: no row yet
    std::uint64_t FileId = 0;
    KelString DeviceGUID;  ///< path name "host:port/GUID/MAC/IP/mask" or device URL; empty: this device
    KelString DevicePath;  ///< the sub-tree of targets below, a container as XML
    std::int64_t TargetCreateTime = 0;  ///< seconds since the epoch
    std::int64_t LastNotifyTime = 0;    ///< a future time postpones the next announcement
    std::uint32_t WakeUpDevice = 0;     ///< 1: the device may be woken
};

/// A target with its file.
struct FileTarget {
    FileStoreEntry file;
    FileStoreTarget target;
};

// Locks and failures as in files_table.h: changes take mutexDownstream.

// ---- selections

/// Marks the targets of available files whose last announcement was before `due`; new ones are marked
/// already. Notification times above `latest`, which nothing writes, were written before the clock was set
/// back: these targets are due too. Before a selection. False when that failed.
bool MarkDueTargets(std::int64_t due, std::int64_t latest);

/// Which files go out by multicast: those of this size, with fewer transfers tried.
struct MulticastLimits {
    std::uint32_t leastSize = 0;
    std::uint32_t retries = 0;
};

/// Which of the marked targets are selected: none of a device that has yet to learn of a withdrawal; `due`
/// leaves out those whose file was touched later.
struct DueTargets {
    enum class Where : unsigned char { ThisDevice, OtherDevices };

    std::int64_t due = 0;
    Where where = Where::ThisDevice;
    bool windowClosed = false;    ///< of other devices only those of bypass files
    KelVector<KelString> except;  ///< path names of devices that are left out
    unsigned int limit = 0;
    /// While multicast is in use: targets of a file that is being sent to a group are left out, and those
    /// that may be sent to one are selected whatever the window says.
    std::optional<MulticastLimits> multicast{};
};
/// The most urgent due targets.
KelVector<FileTarget> SelectDueTargets(const DueTargets& wanted);

/// One target of one file, at most one row, whatever their times and status.
KelVector<FileTarget> SelectTarget(std::uint64_t fileId, std::uint64_t targetId);

/// The targets of a file that is wanted by `device` (a device URL, with which its path name begins), or by
/// this device when that is empty. Nothing when the statement failed.
std::optional<KelVector<FileStoreTarget>> FindTargets(std::uint64_t fileId, const KelString& device);

/// The targets of an available file on other devices that are due: what a transfer to a group would serve.
KelVector<FileStoreTarget> SelectMulticastTargets(std::uint64_t fileId);

/// When the oldest target of a file was recorded. Nothing when it has none or the statement failed.
std::optional<std::int64_t> OldestTargetTime(std::uint64_t fileId);

/// All targets of a file. Nothing when the statement failed.
std::optional<KelVector<FileStoreTarget>> FindTargets(std::uint64_t fileId);

bool HasTargets(std::uint64_t fileId);

/// A file that waits for targets, with the numbers of these.
struct NotifiableFile {
    std::uint64_t fileId = 0;
    FileKey key;
    KelString status;
    std::int64_t size = 0;
    std::int32_t priority = 0;
    std::int64_t waiting = 0;   ///< not announced yet, or to be announced again at once
    std::int64_t notified = 0;  ///< have taken an announcement
    std::int64_t failed = 0;    ///< could not be called, or were silent since the announcement
    std::int64_t oldest = 0;    ///< when the oldest target was recorded
};
/// Those whose oldest target waits longest come first. Reads the table as a whole.
KelVector<NotifiableFile> SelectNotifiableFiles(std::int64_t now, const ListRange& range);

/// The number of all targets; 0 also when the statement failed.
std::int64_t CountTargets();

/// When the oldest of all targets was recorded; 0 when there is none or the statement failed.
std::int64_t OldestTargetTime();

/// The latest LastNotifyTime of the rows with this DeviceGUID, 0 when there are none. Nothing when the
/// statement failed.
std::optional<std::int64_t> LatestNotifyTime(const KelString& deviceGuid);

/// The names under which the device with the GUID `guid`, letters, digits and hyphens only, is a target.
KelVector<KelString> NamesOfTargets(const KelString& guid);

/// True when the device with the GUID `guid`, as above, is a target of the file that is announced under the URL
/// path `url`. Nothing when a statement failed.
std::optional<bool> IsTargetOfUrl(const KelString& url, const KelString& guid);

/// All targets, for a change of the device's own port.
KelVector<FileStoreTarget> SelectAllTargets();

// ---- changes; each false when it was not made

// Storing a target makes it one of the file `fileId`: it is inserted, with a new TargetId, when it has none,
// otherwise its row is written back.

/// The TargetId, 0 on failure.
std::uint64_t StoreTarget(std::uint64_t fileId, const FileStoreTarget& target);
/// Stores the targets in one transaction of their own; one that fails is left out.
bool RecordTargets(std::uint64_t fileId, const KelVector<FileStoreTarget>& targets);
/// Inserts a file that has no FileId, or writes it back, and stores its targets: all of it or nothing.
bool SaveFileWithTargets(FileStoreEntry& file, const KelVector<FileStoreTarget>& targets);

/// The targets of a device, named by its device URL, whose last announcement failed are due. False when there
/// are none. `now`: announcements that were taken have later times and stay as they are.
bool MakeTargetsDue(const KelString& deviceUrl, std::int64_t now);

bool SetNotifyTime(std::uint64_t targetId, std::int64_t time);
/// All targets of a file that would be due earlier are due when `time` is.
bool PostponeTargets(std::uint64_t fileId, std::int64_t time);
bool SetTargetDevice(const FileStoreTarget& target);
bool DeleteTarget(std::uint64_t targetId);

/// Removes the target of a file whose device has the GUID `guid`, which holds letters, digits and hyphens
/// only.
bool DeleteTargetsOfDevice(std::uint64_t fileId, const KelString& guid);

/// Removes all targets of the device with the GUID `guid`, as above. The names under which it was one.
KelVector<KelString> DeleteTargetsOfDevice(const KelString& guid);

/// What a round of announcements has come to.
struct AnnouncementOutcome {
    IdList delivered;                    ///< targets to remove: handed over here, or never reachable
    IdList announced;                    ///< targets that have taken the announcement
    IdList failed;                       ///< targets that could not be called
    KelVector<KelString> failedDevices;  ///< path names: all rows of such a device are postponed
    IdList putOff;                       ///< targets that could not be tried and are due again soon
    IdList withdrawn;                    ///< withdrawals that a device has taken, or refuses for good

    bool IsEmpty() const;
    void Append(const AnnouncementOutcome& other);
};

/// The times that an outcome gets.
struct AnnouncementTimes {
    std::int64_t now = 0;        ///< of failed targets and devices
    std::int64_t announced = 0;  ///< these are announced again if they do not acknowledge
    std::int64_t putOff = 0;
};
/// Records it in one transaction.
bool RecordAnnouncements(const AnnouncementOutcome& outcome, const AnnouncementTimes& times);
/// The same in the transaction of the caller, who holds mutexDownstream.
bool WriteAnnouncements(const AnnouncementOutcome& outcome, const AnnouncementTimes& times);

}  // namespace filestore

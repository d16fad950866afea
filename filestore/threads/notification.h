#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/types.h"

class DBResult;

namespace filestore {

/// What a target row and its file say for a notification, in the forms of the database.
struct NotificationRow {
    std::uint32_t fileId = 0;
    std::uint32_t targetId = 0;
    KelString path;
    KelString url;
    bool isExternal = false;  ///< the file lies outside the store
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;
    KelString sourceDevice;
    KelString firstRelay;
    KelString status;
    KelString devicePath;  ///< XML
    KelString fileInfo;    ///< XML
    KelString deviceGuid;  ///< the target's path name; empty: this device
    std::uint32_t wakeUpDevice = 0;
    std::int32_t keepCopy = 0;
    std::int64_t size = 0;
    std::int32_t priority = 0;
    bool bypass = false;
    KelString transportMode;
};

/// Reads a row of the notification selections; columns that a selection leaves out read as 0 and empty.
NotificationRow ReadNotificationRow(const DBResult& result, std::size_t row);

/// The file's path for the modules of this device, and its URL path for other devices.
KelString AnnouncedPath(const NotificationRow& row);
KelString AnnouncedUrl(const NotificationRow& row);

/// For a file whose targets are no children of this device, replaces what is announced (type, label, name,
/// checksum, size, path) by a small rule file that tells so and is made here; other rows stay as they are.
/// False, logged, when it cannot be made.
bool ReplaceByRuleFile(NotificationRow& row);

/// The arguments of the notification, but for `FilePath` or `FileURL`.
KelContainer BuildNotification(const NotificationRow& row);

/// False when a target's path name has no address that can be called.
bool IsValidDestination(const KelString& deviceGuid);

/// Asks the Wake-on-LAN module to wake a target that could not be called; `error` is the call's.
void WakeUpTarget(const NotificationRow& row, unsigned int error);

}  // namespace filestore

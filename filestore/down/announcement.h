#pragma once

#include "filestore/db/targets_table.h"
#include "kel/types.h"
#include "kelcore/file_offer.h"

/// The pieces of an announcement: what a target receives about a file. For the notify thread; no lock is
/// needed or taken but mutexSettings.
namespace filestore {

/// When the targets of a file are no children of this device (status kStatusNotRelaysChild), replaces key,
/// size and path of `row.file` by those of a small rule file that says so and is made here: that file is
/// announced instead. Other rows stay as they are. False, logged, when it cannot be made.
bool ReplaceByRuleFile(FileTarget& row);

/// The LastNotifyTime of a target that was announced at `now`: with it, the target is due again, if it does
/// not acknowledge, after five times Timeout. No row gets a later one.
std::int64_t TimeOfAnnounced(std::int64_t now);

/// The arguments of FileStoreReceiveFile and of the event "FileStoreCallbackReceivedFile", but for `filePath`
/// (modules of this device) or `url` (other devices). Damaged columns are logged and left empty.
FileOffer BuildAnnouncement(const FileTarget& row);

/// The URL path under which other devices fetch the file.
KelString AnnouncedUrl(const FileStoreEntry& file);

/// False when a target's path name has no address that can be called.
bool IsValidDestination(const KelString& deviceGuid);

/// Asks the Wake-on-LAN module to wake a target that could not be called and may be woken; `error` is the
/// result of the call. True when it has been asked.
bool WakeUpTarget(const FileStoreTarget& target, unsigned int error);

/// Ends what WakeUpTarget began to log: the target has answered a call.
void NoteAnswerOf(const KelString& deviceGuid);

}  // namespace filestore

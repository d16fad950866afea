#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// The name under which a backup holds what is known about it: a JSON object with the texts Version and Host,
/// the time Time, the flag Content, and the paths Executables[].
inline constexpr const char* kBackupDescription = "kel-backup.json";

/// What a path beneath a root folder, without "/" at its beginning, is to a backup.
enum class BackupPart : unsigned char {
    Never,     ///< logs, locks, sockets, temporary files
    Store,     ///< a database of the file store: its rows would describe files and transfers of the past
    Database,  ///< of a running agent it is copied by the agent
    Content,   ///< what the tree brings back, or consumers have taken over: stored and delivered files
    Always,    ///< settings, keys, publications and everything else
};
BackupPart BackupPartOf(const KelString& path);

/// What a backup of a device takes. The store of a restored device begins with empty databases, as after a
/// lost one: that has the tree bring back what is pending. The master alone gets the database of its
/// publications back, which has what the console's does not.
struct BackupChoice {
    bool isMaster = false;
    bool content = false;
    bool isRunning = false;  ///< the agent has made copies of the databases
    bool Takes(const KelString& path) const;
};

/// The files beneath `root` (without "/" at its end) that a backup takes, but for databases that the agent
/// has copied: paths beneath it, sorted. Links are left out.
KelVector<KelString> FilesToBackUp(const KelString& root, const BackupChoice& choice);

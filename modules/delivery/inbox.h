#pragma once

#include <cstdint>

#include "kel/ini_file.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/delivery/received_file.h"

/// A file that lies in the inbox.
struct DeliveredFile {
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;  ///< MD5 of its content
    KelString path;
    std::int64_t size = 0;  ///< bytes
    std::int64_t time = 0;  ///< of its last change, seconds since the epoch
};

/// The folders that delivered files lie in: "<folder>/<type>/<label>/<name>", for a type with a folder of its
/// own "<folder>/<label>/<name>". Configured once; then from any thread.
class Inbox {
  public:
    /// `root` is what relative folders of the ini file count from. An unusable folder is an error that names
    /// it.
    KelStatus Configure(const IniFile& ini, const KelString& root);

    KelString PathOf(const ReceivedFile& file) const;

    /// True when the file lies at its place with the content that its checksum tells.
    bool Holds(const ReceivedFile& file) const;

    /// Copies the file to its place, replacing another content atomically; on the disk when the call
    /// succeeds. The copy is made beside that place, for a folder of the ini file may be on any file system.
    KelStatus Put(const ReceivedFile& file) const;

    /// All files, by type, label and name. Contents are read to hash them where they changed since the last
    /// call.
    KelVector<DeliveredFile> List();

  private:
    struct KnownChecksum {
        std::int64_t size = 0;
        std::int64_t changeTime = 0;  ///< nanoseconds since the epoch
        KelString checksum;
    };

    void ListType(const KelString& folder, const KelString& type, KelVector<DeliveredFile>& files);
    bool Examine(DeliveredFile& file);

    KelString folder_;                           ///< of the types without one of their own
    KelVector<KelString> types_;                 ///< with a folder of their own, in the order of the ini file
    KelHash<KelString, KelString> typeFolders_;  ///< by type
    KelMutex mutex_;                             ///< known_ only; not held while a file is read
    KelHash<KelString, KnownChecksum> known_ KEL_GUARDED_BY(mutex_);  ///< by path
};

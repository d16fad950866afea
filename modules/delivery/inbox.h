#pragma once

#include <cstdint>
#include <functional>

#include "kel/ini_file.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"
#include "modules/delivery/file_place.h"
#include "modules/delivery/received_file.h"

/// A file in the inbox.
struct DeliveredFile {
    FileKey key;  ///< the checksum is that of the content as it is now
    KelString path;
    std::int64_t size = 0;  ///< bytes
    std::int64_t time = 0;  ///< of its last change, seconds since the epoch
};

/// The folders of delivered files: "<folder>/<type>/<label>/<name>", or "<folder>/<label>/<name>" for a type
/// with a folder of its own. A name that stands for a path (kelcore/relative_name.h) is that path below the
/// label. Configured once; then from any thread.
class Inbox {
  public:
    /// Relative folders of the ini file, which has no vital fault, are relative to `root`.
    void Configure(const IniFile& ini, const KelString& root);

    /// The entries of the ini file that tell the folders, and what is wrong with file types there.
    static KelVector<IniSetting> IniSettings();
    static void CheckIni(const IniFile& ini, KelVector<IniFault>& faults);

    FilePlace PlaceOf(const ReceivedFile& file) const;

    /// True when the file is in its place and its content is what was published.
    bool Holds(const ReceivedFile& file) const;

    /// Copies the file to its place, replacing another content atomically; on the disk when the call
    /// succeeds. The copy is made next to its place, because a configured folder may be on any file system.
    /// kKelErrorBadInput when its content is not what the master has signed.
    KelStatus Put(const ReceivedFile& file) const;

    /// True when a file was delivered to this path.
    using WasDelivered = std::function<bool(const KelString& path)>;

    /// All files, by type, label and name; of those in folders below a label the delivered ones. Only
    /// contents that changed since the last call are read and hashed.
    KelVector<DeliveredFile> List(const WasDelivered& wasDelivered);

  private:
    struct KnownChecksum {
        std::int64_t size = 0;
        std::int64_t changeTime = 0;  ///< nanoseconds since the epoch
        KelString checksum;
    };

    void ListType(const FilePlace& folder, const KelString& type, const WasDelivered& wasDelivered,
                  KelVector<DeliveredFile>& files);
    bool Examine(const FilePlace& place, DeliveredFile& file);

    PlaceAccess access_;
    KelString folder_;                           ///< of the types without one of their own
    KelVector<KelString> types_;                 ///< with a folder of their own, in the order of the ini file
    KelHash<KelString, KelString> typeFolders_;  ///< by type
    KelMutex mutex_;                             ///< not held while a file is read
    KelHash<KelString, KnownChecksum> known_ KEL_GUARDED_BY(mutex_);  ///< by path
};

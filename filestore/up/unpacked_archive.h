#pragma once

#include "filestore/db/file_store_entry.h"
#include "kel/container.h"
#include "kel/thread.h"

namespace filestore {

enum class Intake : unsigned char {
    Done,
    Refused,  ///< for good
    Failed,   ///< disk or database: to be tried again
};

/// The contents of an archive of packed files, in a folder of the storage folder so that they can be renamed
/// into place. Each entry is a file of its number there: folders would cost more than small files. Removed at
/// the end of the scope; what a kill left is removed at the next start. On the callback thread.
class UnpackedArchive {
  public:
    explicit UnpackedArchive(const FileStoreEntry& archive);
    ~UnpackedArchive();
    UnpackedArchive(const UnpackedArchive&) = delete;
    UnpackedArchive& operator=(const UnpackedArchive&) = delete;

    /// Unpacks the archive and reads its index. Logs what is wrong with it. The cancellation of `thread` ends
    /// the waits between tries.
    Intake Open(KelThread& thread, KelContainer& index);

    /// Where the content of a record of the index lies; empty when the archive has none.
    KelString PathOf(const KelContainer& record) const;

  private:
    bool HoldsPackedFilesOnly(const KelVector<KelString>& names) const;
    Intake Extract(KelThread& thread) const;
    Intake ReadIndex(KelContainer& index) const;
    KelString PathOfEntry(const KelString& name) const;

    const FileStoreEntry& archive_;
    KelString path_;                           ///< of the archive
    KelString folder_;                         ///< of the contents
    KelHash<KelString, std::size_t> numbers_;  ///< of the entries, by name
};

/// True when the archive at `path` holds nothing but an index and upstream files: others have no business in
/// the store. False as well when it cannot be listed. Any thread.
bool IsPackedArchive(const KelString& path);

}  // namespace filestore

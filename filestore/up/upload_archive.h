#pragma once

#include <cstdint>
#include <memory>
#include <set>

#include "filestore/db/file_store_entry.h"
#include "filestore/state/removal.h"
#include "kel/container.h"
#include "kelcore/archive.h"

namespace filestore {

/// The index of an archive is its first entry: a container with the record (FileRecordOf) of every file. The
/// other entries are the contents, each named by its path below the receiver's storage folder,
/// "upstream/type/label/checksum/name".
inline constexpr const char* kPackingIndexEntry = "Temp/PackedFilesInfo.xml";

/// The name of the index's values, and in each of them that of the entry with the content.
inline constexpr const char* kPackedFileValue = "PackedFile";
inline constexpr const char* kPackedEntryValue = "PackedEntry";

/// Begins the file names of archives.
inline constexpr const char* kArchiveNamePrefix = "PACKEDFILES_";

/// An archive that gathers many upstream files, so that they travel as one. It is filled in two passes of the
/// push thread:
///   send pass: Add lists the files, Create writes the archive with nothing but its index;
///   upload pass: AddContents adds the contents, then EnterStore makes the archive an upstream file of type
///   kPackedFilesType, or Drop discards it.
///
/// At most one archive is being filled: FileStore::strArchiveFilePath names it from Create until EnterStore
/// or Drop and is empty otherwise; only this class writes it. After a failed Create it names what the next
/// Create or Drop removes. Failures are logged. Used on the push thread only.
class UploadArchive {
  public:
    /// Whether a file can be packed at all; a larger one travels on its own, and so does an archive.
    static bool CanPack(const FileStoreEntry& entry);

    // ---- send pass

    /// Whether the file goes with those listed so far. Files that pass closed windows travel apart from
    /// others, so that they need not wait with them, and an entry name can occur only once.
    bool Suits(const FileStoreEntry& entry) const;

    /// Whether the archive stays within the limits of size with this file.
    bool HasRoomFor(const FileStoreEntry& entry) const;

    /// Lists a file in the index. It suits the archive, which has room for it.
    void Add(const FileStoreEntry& entry);

    /// The number of files in the index.
    std::size_t Count() const { return listed_.size(); }

    /// Writes the archive with its index into the module's work folder. The archive that was being filled is
    /// removed: its files have been listed again.
    bool Create();

    // ---- upload pass

    /// Whether the index names the file. Only such files may be added: the receiver would lose others.
    bool Lists(const FileStoreEntry& entry) const { return listed_.contains(entry.FileId); }

    /// Adds the content of a listed file, which lies at `path` and must stay until EnterStore.
    bool AddContents(const FileStoreEntry& entry, const KelString& path);

    /// Writes the archive, to which something was added, and moves it into the upstream store by an offer to
    /// this device. When that fails the archive is dropped.
    bool EnterStore();

    /// Removes the archive; its files wait for the next one.
    void Drop();

  private:
    bool Open();
    bool Write();

    KelContainer index_;  ///< until Create has written it
    std::set<std::uint64_t> listed_;
    KelVector<FileInUse> inUse_;  ///< what is listed
    std::set<KelString> entryNames_;
    bool bypass_ = false;            ///< of all listed files
    std::int64_t contentBytes_ = 0;  ///< unpacked
    std::size_t indexBytes_ = 0;
    std::unique_ptr<GenericArchive> file_;  ///< open since the first AddContents
};

}  // namespace filestore

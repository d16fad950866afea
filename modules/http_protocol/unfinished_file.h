#pragma once

#include <cstdint>
#include <string_view>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"

namespace kelhttp {

/// A file that is made in the folder of its destination without a name, and put in place when it is complete.
/// If the object or the process ends before that, nothing is left behind. On file systems without nameless
/// files a hidden file is used instead; one that a killed process left is removed by a later use of the
/// folder.
///
/// A *part* is a file that is to be completed by a later object: it has a hidden name, made from that of the
/// destination and its owner, and stays when the object or the process ends before it is in place. A
/// destination has at most one part besides those that are being written.
///
/// One thread at a time; the operations block on the disk and set errno when they fail.
class UnfinishedFile {
  public:
    explicit UnfinishedFile(AliasMatch place) : place_(std::move(place)) {}
    ~UnfinishedFile();
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;

    /// Opens the folder of the destination; the first operation.
    bool OpenFolder();

    /// True when the destination is kept for the agent's own files: its databases and ini files.
    bool IsKeptForAgent() const;

    /// Creates the file, open for reading and writing, and reserves `size` bytes, so that a full disk is
    /// reported before the content is sent; file systems that cannot reserve report it with a write. Null, or
    /// what could not be done, as in "cannot WHAT the destination". An earlier file of this object is
    /// dropped.
    const char* Create(std::uint64_t size);

    /// The same with an empty part of `owner` in place of the parts that the destination had; as Create when
    /// the owner's part is being written by another object.
    const char* CreatePart(std::string_view owner, std::uint64_t size);

    /// Opens the part of `owner`, of which the first `keep` bytes are used, and reserves what it lacks of
    /// `size`. Null, or what could not be done, errno being ENOENT when there is no part of at least `keep`
    /// bytes, EBUSY while another object writes it.
    const char* OpenPart(std::string_view owner, std::uint64_t keep, std::uint64_t size);

    /// Removes the parts of the destination that no object writes, but for the one with the name `kept`.
    void RemoveParts(const KelString& kept = {}) const;

    /// The bytes that the part of `owner` holds; 0, errno being ENOENT, when there is none. Waits a second
    /// for an object that writes it, since a connection that breaks off may end a moment after its successor
    /// has begun; then 0, errno being EBUSY.
    std::uint64_t PartLength(std::string_view owner) const;

    /// Gives the file its name; what had the name before is replaced.
    bool PutInPlace();
    bool SyncFolder() const;

    int Get() const { return file_.Get(); }
    bool IsOpen() const { return static_cast<bool>(file_); }
    void Close() { file_.Reset(); }
    /// Closes the file and removes it, unless it is in place.
    void Drop();
    bool IsPart() const { return isPart_; }

    /// The open file under a path that any code of this process can open, whether or not the file has a name.
    KelString OpenPath() const;
    KelString Destination() const;
    /// True when PutInPlace created the file, false when it replaced one.
    bool IsNew() const { return isNew_; }

  private:
    bool HasRoomFor(std::uint64_t size) const;
    const char* Reserve(std::uint64_t from, std::uint64_t size);
    bool MakeHiddenFile();
    KelVector<KelString> NamesInFolder() const;
    void RemoveLeftovers() const;
    KelString PartName(std::string_view owner) const;
    UniqueFd LockPart(const KelString& name, int flags) const;
    void KeepPart();

    AliasMatch place_;
    UniqueFd folder_;
    UniqueFd file_;
    KelString name_;
    KelString hiddenName_;  ///< of the file while it is not in place; empty when it has none
    bool isPart_ = false;   ///< the hidden file stays when it is not put in place
    bool isNew_ = false;
};

}  // namespace kelhttp

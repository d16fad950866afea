#pragma once

#include <cstdint>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"

namespace kelhttp {

/// A file that is made in the folder of its destination without a name, and put in place when it is complete.
/// If the object or the process ends before that, nothing is left behind. On file systems without nameless
/// files a hidden file is used instead; one that a killed process left is removed by a later use of the
/// folder. One thread at a time; the operations block on the disk and set errno when they fail.
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

    /// Gives the file its name; what had the name before is replaced.
    bool PutInPlace();
    bool SyncFolder() const;

    int Get() const { return file_.Get(); }
    bool IsOpen() const { return static_cast<bool>(file_); }
    void Close() { file_.Reset(); }
    /// Closes the file and removes it, unless it is in place.
    void Drop();

    /// The open file under a path that any code of this process can open, whether or not the file has a name.
    KelString OpenPath() const;
    KelString Destination() const;
    /// True when PutInPlace created the file, false when it replaced one.
    bool IsNew() const { return isNew_; }

  private:
    bool HasRoomFor(std::uint64_t size) const;
    bool MakeHiddenFile();
    void RemoveLeftovers() const;

    AliasMatch place_;
    UniqueFd folder_;
    UniqueFd file_;
    KelString name_;
    KelString hiddenName_;  ///< of the file while it is not in place; empty when it has none
    bool isNew_ = false;
};

}  // namespace kelhttp

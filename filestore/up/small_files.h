#pragma once

#include "filestore/db/file_store_entry.h"
#include "filestore/state/removal.h"
#include "kel/container.h"

namespace filestore {

/// Small upstream files that go to the parent with their contents, in one call (FileStoreReceiveContents). On
/// the push thread.
class SmallFiles {
  public:
    /// Reads the content of a file and adds it. False when the file has to travel by itself: it is large, may
    /// be held by the parent already, or cannot be read; the call is full; or a rate is set, because one call
    /// would be a burst.
    bool Add(const FileStoreEntry& entry);

    const KelVector<FileStoreEntry>& Entries() const { return entries_; }

    /// The arguments of the call.
    KelContainer TakeCall() { return std::move(call_); }

  private:
    KelVector<FileStoreEntry> entries_;
    KelContainer call_;
    KelVector<FileInUse> inUse_;
    std::int64_t contentBytes_ = 0;
};

}  // namespace filestore

#pragma once

#include "filestore/db/file_store_entry.h"

/// Rows whose content lies outside the store: published files, packages of a repository, and copies of
/// network packages, which refer to the package in the store. The cleanup passes leave them alone; they go
/// when their content is gone, so that no device is sent to a URL that has none. Any thread, without locks.
namespace filestore {

/// Forgets a downstream file of this kind when its content is gone: true then. Where devices wait for it, the
/// file becomes one that is missing here; otherwise its row is removed.
bool ForgetIfGone(const FileStoreEntry& file);

/// Looks at the external files of both sides, some thousand at a time: each call goes on where the last one
/// has ended. On the cleanup thread.
class ExternalFilesCheck {
  public:
    void Run();

  private:
    void Check(Side side, std::uint64_t& last);

    std::uint64_t lastDownstream_ = 0;  ///< FileId
    std::uint64_t lastUpstream_ = 0;
};

}  // namespace filestore

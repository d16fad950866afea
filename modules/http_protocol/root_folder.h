#pragma once

#include <memory>
#include <mutex>

#include "kel/types.h"
#include "kel/unique_fd.h"

namespace kelhttp {

/// The folder behind an alias. It is kept open between requests, and opened anew when a name is missing in
/// it: it may have been made, moved or replaced since. Any thread.
class RootFolder {
  public:
    explicit RootFolder(KelString path) : path_(std::move(path)) {}

    const KelString& Path() const { return path_; }

    /// Opens a name beneath the folder, as FileOpenBeneath does; "." is the folder itself.
    UniqueFd Open(const KelString& name, int flags) const;

  private:
    std::shared_ptr<const UniqueFd> Folder(bool again) const;

    const KelString path_;
    mutable std::mutex mutex_;  ///< folder_; not held while a name is opened
    mutable std::shared_ptr<const UniqueFd> folder_;
};

}  // namespace kelhttp

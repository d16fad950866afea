#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string_view>

#include "kel/mutex.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

namespace kelhttp {

/// The folder behind an alias. It is kept open between requests, and opened again when a name is missing in
/// it, because it may have been made, moved or replaced since. Any thread.
class RootFolder {
  public:
    explicit RootFolder(KelString path) : path_(std::move(path)) {}

    const KelString& Path() const { return path_; }

    /// Opens a name beneath the folder, as FileOpenBeneath does; "." is the folder itself.
    UniqueFd Open(const KelString& name, int flags) const;

  private:
    std::shared_ptr<const UniqueFd> Folder(bool again) const;

    const KelString path_;
    mutable KelMutex mutex_;  ///< not held while a name is opened
    mutable std::shared_ptr<const UniqueFd> folder_ KEL_GUARDED_BY(mutex_);
};

/// The place beneath an alias that a request path names.
struct AliasMatch {
    std::shared_ptr<const RootFolder> root;  ///< the alias's folder, never null
    KelString rest;                          ///< the path beneath it, without a leading "/"; never empty
    bool writable = false;
};

/// The names under which folders are published: the alias "FileStore/upstream" publishes its folder as
/// "/FileStore/upstream/". Any thread.
class AliasTable {
  public:
    /// Names of aliases that take uploads, registered or not. Leading and trailing "/" are ignored.
    void SetWritable(const KelVector<KelString>& names);

    /// Adds or replaces. False for an unusable name (an empty, ".", ".." or control-character element) or an
    /// empty folder.
    bool Add(std::string_view name, const KelString& folder);

    /// Removes the alias and, with `below`, every alias whose name begins with "name/".
    void Delete(std::string_view name, bool below);

    /// The longest alias that `path` (decoded and checked, "/a/b") begins with, ending at a "/".
    std::optional<AliasMatch> Find(std::string_view path) const;

    /// The same for a path of this device: the alias whose folder holds it. Nothing when none does, or when
    /// an element beneath the folder is empty, "." or "..", or has a control character.
    std::optional<AliasMatch> FindFolderOf(std::string_view localPath) const;

  private:
    mutable std::shared_mutex mutex_;  ///< shared, because every request looks up its alias
    std::map<KelString, std::shared_ptr<const RootFolder>, std::less<>>
        folders_;  ///< by name without outer "/"
    std::set<KelString, std::less<>> writable_;
};

}  // namespace kelhttp

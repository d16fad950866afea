#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string_view>

#include "kel/types.h"
#include "modules/http_protocol/root_folder.h"

namespace kelhttp {

/// A place beneath an alias that a request path names.
struct AliasMatch {
    std::shared_ptr<const RootFolder> root;  ///< the alias's folder, never null
    KelString rest;                          ///< what lies beneath it, without a leading "/"; never empty
    bool writable = false;
};

/// Names under which folders are published: "FileStore/upstream" publishes its folder as
/// "/FileStore/upstream/". Any thread.
class AliasTable {
  public:
    /// Names of aliases that take uploads, registered or not. Leading and trailing "/" do not count.
    void SetWritable(const KelVector<KelString>& names);

    /// Adds or replaces. False for an unusable name (an empty, ".", ".." or control-character element) or an
    /// empty folder.
    bool Add(std::string_view name, const KelString& folder);

    /// Removes the alias and, with `below`, every alias whose name begins with "name/".
    void Delete(std::string_view name, bool below);

    /// The longest alias that `path` (decoded and checked, "/a/b") begins with, ending at a "/".
    std::optional<AliasMatch> Find(std::string_view path) const;

  private:
    mutable std::shared_mutex mutex_;
    std::map<KelString, std::shared_ptr<const RootFolder>, std::less<>>
        folders_;  ///< by name without outer "/"
    std::set<KelString, std::less<>> writable_;
};

}  // namespace kelhttp

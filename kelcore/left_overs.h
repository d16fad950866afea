#pragma once

#include <functional>

#include "kel/types.h"

/// A folder outside the file store in which a kill or a lost database may leave files that nothing refers to
/// any more. The file store's daily search for orphans looks there as well, for as long as this object lives.
/// Made and destroyed on any thread.
class KelLeftOverFolder {
  public:
    /// True when nothing refers to the file at a path, which is old; with `removes` it is removed then. False
    /// also when that cannot be said.
    using Examine = std::function<bool(const KelString& path, bool removes)>;
    /// `path` is absolute; `examine` is called for files below it, with a lock held that the end of this
    /// object waits for. Without it, every old file is left over.
    explicit KelLeftOverFolder(KelString path, Examine examine = {});
    ~KelLeftOverFolder();
    KelLeftOverFolder(const KelLeftOverFolder&) = delete;
    KelLeftOverFolder& operator=(const KelLeftOverFolder&) = delete;

    /// The folders, each once.
    static KelVector<KelString> List();
    /// Examines a file below one of them.
    static bool IsLeftOver(const KelString& folder, const KelString& path, bool removes);

  private:
    const KelString path_;
};

#include "filestore/module/orphans.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>

#include "filestore/db/content_rows.h"
#include "filestore/db/database.h"
#include "filestore/db/information_table.h"
#include "filestore/state/file_store.h"
#include "filestore/state/settings.h"
#include "filestore/state/store_layout.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/file_times.h"
#include "kel/text.h"
#include "kelcore/file_lease.h"
#include "kelcore/left_overs.h"

using namespace filestore;

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kInterval = 86400;  ///< seconds
constexpr unsigned int kRowsAtOnce = 500;
constexpr std::uint64_t kMostListed = 50;  ///< of each kind; the others are counted
constexpr std::uint64_t kMiB = 1 << 20;

/// Since when a database has known what lies in the store: what is older, it may have lost.
std::optional<std::int64_t> KnownSince(Side side) {
    const auto since = ReadInformation(kStoreKnownSinceField, side);
    if (!since) return std::nullopt;
    return static_cast<std::int64_t>(ParseUint64(*since).value_or(0));
}

/// While files are still to be taken from the store into a new database, none of them is an orphan.
bool IsComplete(Side side) {
    return side == Side::Downstream || ReadInformation(kUnknownFilesField, side).value_or("0") == "0";
}

/// Looks for old files below a folder that nothing needs.
class FolderSearch {
  public:
    FolderSearch(std::int64_t now, const std::function<bool()>& isCancelled)
        : oldest_(now - std::int64_t{FileStore::ulTimeToLive}),
          isCancelled_(isCancelled),
          removes_(FileStoreReadFlag("FileStore", "RemoveOrphans")) {}

    /// True when nothing needs the file; with `removes` it is removed then.
    using Examine = std::function<bool(const KelString& path, bool removes)>;
    void LookIn(const KelString& folder, const Examine& examine);
    /// Logs what was found in `where`.
    void Summarise(const KelString& where) const;

  private:
    void LookAt(const KelString& path, const Examine& examine);
    void Report(const KelString& path, std::uint64_t bytes);

    const std::int64_t oldest_;  ///< what has changed later is left alone
    const std::function<bool()>& isCancelled_;
    const bool removes_;
    std::uint64_t files_ = 0;
    std::uint64_t bytes_ = 0;
};

/// What a side of the store has lost.
class Search {
  public:
    Search(Side side, std::int64_t now, const std::function<bool()>& isCancelled)
        : side_(side), now_(now), isCancelled_(isCancelled) {}

    void LookForFiles();
    void LookForRows();

  private:
    bool LoadExternalPaths();
    bool Examine(const KelString& path, bool removes) const;
    bool IsNamed(const KelString& path) const;
    bool IsStillMissing(const FileStoreEntry& row) const;

    const Side side_;
    const std::int64_t now_;
    const std::function<bool()>& isCancelled_;
    std::set<KelString> external_;
};

bool Search::LoadExternalPaths() {
    for (const Side side : {Side::Downstream, Side::Upstream}) {
        auto paths = SelectExternalPaths(side, FileStore::strStorageLocationToUse + SideName(side_) + "/");
        if (!paths) return false;
        external_.merge(*paths);
    }
    return true;
}

void Search::LookForFiles() {
    if (!LoadExternalPaths()) return;
    FolderSearch search(now_, isCancelled_);
    search.LookIn(FileStore::strStorageLocationToUse + SideName(side_),
                  [this](const KelString& path, bool removes) { return Examine(path, removes); });
    search.Summarise(KelFormat("the store's folder %s", SideName(side_)));
}

void FolderSearch::Summarise(const KelString& where) const {
    if (files_ == 0) return;
    const char* outcome = removes_ ? "they were removed" : "RemoveOrphans=true in FileStore.ini removes them";
    FileStore::debugFileStore.Warning("%gu files in %S (%gu MiB) belong to no row; %s\n", files_, where,
                                      bytes_ / kMiB, outcome);
}

/// Folders may go meanwhile, and are empty then.
void FolderSearch::LookIn(const KelString& folder, const Examine& examine) {
    for (const KelString& name : DirList(folder)) {
        if (isCancelled_()) return;
        const KelString path = folder + "/" + name;
        std::error_code failure;
        if (fs::is_directory(fs::symlink_status(path, failure)))
            LookIn(path, examine);
        else
            LookAt(path, examine);
    }
}

void FolderSearch::LookAt(const KelString& path, const Examine& examine) {
    const std::int64_t changed = FileLastChange(path);
    if (changed < 0 || changed >= oldest_) return;
    // An offer of content that is here already holds a lease of it until its row is recorded.
    const KelFileClaim claim(path);
    if (!claim) return;
    const std::int64_t size = FileGetSize64(path);
    if (examine(path, removes_)) Report(path, static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0)));
}

bool Search::Examine(const KelString& path, bool removes) const {
    if (IsNamed(path)) return false;
    if (removes) DeleteFileAndFolder(path);
    return true;
}

bool Search::IsNamed(const KelString& path) const {
    if (external_.contains(path)) return true;
    const auto place = ParseStoredPath(path.substr(FileStore::strStorageLocationToUse.size()));
    return place && HasRowFor(*place);
}

void FolderSearch::Report(const KelString& path, std::uint64_t bytes) {
    ++files_;
    bytes_ += bytes;
    if (files_ <= kMostListed) FileStore::debugFileStore.Print("%S belongs to no row\n", path);
}

/// Rows may have been removed, with their content, since they were read.
bool Search::IsStillMissing(const FileStoreEntry& row) const {
    const FileRows again = SelectRowsWithContent(side_, row.FileId - 1, 1);
    return !again.empty() && again.front().FileId == row.FileId &&
           FileIsMissing(ContentPath(again.front(), side_));
}

void Search::LookForRows() {
    std::uint64_t missing = 0;
    FileRows rows = SelectRowsWithContent(side_, 0, kRowsAtOnce);
    for (; !rows.empty(); rows = SelectRowsWithContent(side_, rows.back().FileId, kRowsAtOnce)) {
        for (const FileStoreEntry& row : rows) {
            if (isCancelled_()) return;
            const KelString path = ContentPath(row, side_);
            if (!FileIsMissing(path) || !IsStillMissing(row) || ++missing > kMostListed) continue;
            FileStore::debugFileStore.Warning(
                "The content of %S is missing: restore %S, or %s\n", row.Key().Text(), path,
                side_ == Side::Downstream ? "publish it again" : "send it again");
        }
    }
    if (missing > kMostListed)
        FileStore::debugFileStore.Warning("The content of %gu files is missing in all\n", missing);
}

/// What other parts of the agent have left over.
void LookBesideTheStore(std::int64_t now, const std::function<bool()>& isCancelled) {
    for (const KelString& folder : KelLeftOverFolder::List()) {
        FolderSearch search(now, isCancelled);
        search.LookIn(folder, [&folder](const KelString& path, bool removes) {
            return KelLeftOverFolder::IsLeftOver(folder, path, removes);
        });
        search.Summarise(folder);
    }
}

}  // namespace

void NoteStoreIsKnown(std::int64_t now) {
    for (const Side side : {Side::Downstream, Side::Upstream})
        if (!KnownSince(side)) WriteInformation(kStoreKnownSinceField, KelFormat("%ld", now), side);
}

void OrphanSearch::RunWhenDue(std::int64_t now, const std::function<bool()>& isCancelled) {
    const std::int64_t age = now - last_;
    if (age >= 0 && age < kInterval) return;
    last_ = now;
    for (const Side side : {Side::Downstream, Side::Upstream}) {
        Search search(side, now, isCancelled);
        const auto since = KnownSince(side);
        const bool isOldEnough = since && *since < now - std::int64_t{FileStore::ulTimeToLive};
        if (isOldEnough && IsComplete(side)) search.LookForFiles();
        search.LookForRows();
    }
    LookBesideTheStore(now, isCancelled);
}

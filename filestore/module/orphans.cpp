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

class Search {
  public:
    Search(Side side, std::int64_t now, const std::function<bool()>& isCancelled)
        : side_(side),
          oldest_(now - std::int64_t{FileStore::ulTimeToLive}),
          isCancelled_(isCancelled),
          removes_(FileStoreReadFlag("FileStore", "RemoveOrphans")) {}

    void LookForFiles();
    void LookForRows();

  private:
    bool LoadExternalPaths();
    void LookIn(const KelString& folder);
    void LookAt(const KelString& path);
    bool IsNamed(const KelString& path) const;
    void Report(const KelString& path, std::uint64_t bytes);
    bool IsStillMissing(const FileStoreEntry& row) const;

    const Side side_;
    const std::int64_t oldest_;  ///< what has changed later is left alone
    const std::function<bool()>& isCancelled_;
    const bool removes_;
    std::set<KelString> external_;
    std::uint64_t files_ = 0;
    std::uint64_t bytes_ = 0;
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
    LookIn(FileStore::strStorageLocationToUse + SideName(side_));
    if (files_ == 0) return;
    const char* outcome = removes_ ? "they were removed" : "RemoveOrphans=true in FileStore.ini removes them";
    FileStore::debugFileStore.Warning("%gu files in the store's folder %s (%gu MiB) belong to no row; %s\n",
                                      files_, SideName(side_), bytes_ / kMiB, outcome);
}

/// Folders may go meanwhile, and are empty then.
void Search::LookIn(const KelString& folder) {
    for (const KelString& name : DirList(folder)) {
        if (isCancelled_()) return;
        const KelString path = folder + "/" + name;
        std::error_code failure;
        if (fs::is_directory(fs::symlink_status(path, failure)))
            LookIn(path);
        else
            LookAt(path);
    }
}

void Search::LookAt(const KelString& path) {
    const std::int64_t changed = FileLastChange(path);
    if (changed < 0 || changed >= oldest_) return;
    // An offer of content that is here already holds a lease of it until its row is recorded.
    const KelFileClaim claim(path);
    if (!claim || IsNamed(path)) return;
    Report(path, static_cast<std::uint64_t>(std::max<std::int64_t>(FileGetSize64(path), 0)));
    if (removes_) DeleteFileAndFolder(path);
}

bool Search::IsNamed(const KelString& path) const {
    if (external_.contains(path)) return true;
    const auto place = ParseStoredPath(path.substr(FileStore::strStorageLocationToUse.size()));
    return place && HasRowFor(*place);
}

void Search::Report(const KelString& path, std::uint64_t bytes) {
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
}

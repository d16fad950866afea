#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/files_table.h"

/// Which files the passes of the cleanup thread remove, and their removal. Locks and failures as in
/// files_table.h. Times are seconds since the epoch; a file is older than a bound when its time is less.
namespace filestore {

/// A file whose KeepCopy has the bit of this device's role is kept.
struct KeptFiles {
    std::uint32_t role = 0;  ///< bit of KeepCopy: 1 master, 2 relay, 4 client
    /// Delivered files of more bytes are not kept all the same; 0: no limit.
    std::uint64_t largest = 0;
};

/// A rule says which rows of a side are removed. It never names a row that is handed over to the modules of
/// this device and not yet taken by one, nor a file that is being sent or received by multicast.
class RemovalRule {
  public:
    /// Files that have done their job: sent to the parent, or acknowledged and without targets. The latter
    /// only when they are older than `deliveredBefore`, sent ones when older than `sentBefore`, where given.
    static RemovalRule Delivered(Side side, const KeptFiles& kept,
                                 std::optional<std::int64_t> deliveredBefore,
                                 std::optional<std::int64_t> sentBefore);
    /// Files older than `before`, in whatever state. `waitsForConsumers`: files that no module has taken
    /// stay.
    static RemovalRule Outdated(Side side, const KeptFiles& kept, std::int64_t before,
                                bool waitsForConsumers);
    /// Packages that were last requested before `before`, or made before and never requested.
    static RemovalRule UnusedPackages(std::int64_t before, bool waitsForConsumers);

    Side GetSide() const { return side_; }

    /// How far a pass has come.
    struct Position {
        std::size_t range = 0;
        std::int64_t createTime = 0;  ///< what is older in this range has been read
    };

    /// The next rows, `limit` at most, none of them in `except`: no rows at the end. Together, the calls of a
    /// pass read each index entry of such rows once, and none of rows that are too young or kept.
    FileRows Select(Position& position, const IdList& except, unsigned int limit) const;

    /// Those of the rows that the rule still names. The caller, who removes them, holds the mutex.
    FileRows Recheck(const IdList& fileIds) const;

  private:
    RemovalRule(Side side, KelString condition) : side_(side), condition_(std::move(condition)) {}

    Side side_;
    KelString condition_;
    /// Where such rows lie: an index and a range of it each.
    struct Range {
        const char* index;
        KelString condition;
        bool isByAge = false;  ///< in the order of CreateTime
    };
    KelVector<Range> ranges_;

    void AddRanges(const char* index, const KelString& condition, const KeptFiles& kept,
                   std::optional<std::int64_t> before);
};

/// Removes some of the targets of these files, `limit` at most; false when that failed. `isDone`: none is
/// left.
bool DeleteSomeTargets(const IdList& fileIds, unsigned int limit, bool& isDone);

/// Removes some of the targets that were made before `before`, `limit` at most, but none of the files
/// `exceptFiles`; false when that failed. `isDone`: none is left.
bool DeleteOldTargets(std::int64_t before, const IdList& exceptFiles, unsigned int limit, bool& isDone);

/// Removes the entries of these URL paths from the queue of arrived files. Takes mutexCallback; where the
/// caller holds another mutex, that was taken before.
bool RemoveArrivedFiles(const FileRows& files);

}  // namespace filestore

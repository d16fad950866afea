#pragma once

#include <chrono>
#include <functional>

#include "filestore/db/removal_rule.h"

/// The work of the cleanup thread in pieces, so that other threads never wait long for a database.
namespace filestore {

/// The size of the pieces of a pass in rows: it follows from how long the last ones held the mutex.
class PieceSize {
  public:
    unsigned int Rows() const { return rows_; }
    void Took(std::chrono::steady_clock::duration held);

  private:
    unsigned int rows_ = 10;
};

/// What the thread lends to its passes.
struct PassHost {
    std::function<bool()> isCancelled;
    /// Called between two pieces, without locks: gives way to the other threads for about as long as the last
    /// piece has held the mutex.
    std::function<void(std::chrono::steady_clock::duration)> giveWay;
};

/// One pass that removes files: rows, targets, entries in the queue of arrived files and content. A piece of
/// rows goes in one transaction; the targets of a file that has many go before it, in pieces of their own. A
/// stop in between leaves what the next pass removes. Files in use stay for a later pass.
struct RemovalPass {
    RemovalRule rule;
    const char* text;                                     ///< logged with the path of each file
    bool isNotable = false;                               ///< logged not only as a trace
    bool hasTargets = false;                              ///< its files may have targets
    bool mayHaveArrived = false;                          ///< its files may be in the queue of arrived files
    std::function<void(const FileRows&)> onRemoved = {};  ///< called without locks
};

/// On the cleanup thread, without locks. The number of files that were removed. A pass that the database
/// refuses ends; the next one repeats it.
std::size_t RunPass(const RemovalPass& pass, const PassHost& host);

/// Removes targets made before `before`, but for those of files in use. Their number is not known.
void RemoveOldTargets(std::int64_t before, const PassHost& host);

}  // namespace filestore

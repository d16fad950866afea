#pragma once

#include <cstdint>
#include <functional>

/// Has the databases remember, when they are new, that they know from `now` on what comes into the store. On
/// activation.
void NoteStoreIsKnown(std::int64_t now);

/// Looks for content without a row and rows without content, once after the start and then once a day, on the
/// worker that keeps the store in order. Content that no row names is listed in the log when it has not
/// changed for the time to live, and removed when the setting RemoveOrphans says so: it is what a lost
/// database or a damaged disk has left. What a new database does not know yet is given the same time. So is
/// what lies in other folders of the agent (kelcore/left_overs.h).
class OrphanSearch {
  public:
    /// `now`: seconds since the epoch. `isCancelled` is asked for every file and row.
    void RunWhenDue(std::int64_t now, const std::function<bool()>& isCancelled);

  private:
    std::int64_t last_ = 0;
};

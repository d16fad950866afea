#pragma once

#include "kel/types.h"

// Moves the folders of the store to another location, before anything works on them. The downstream database
// decides which location is in force: until it has committed the new one, everything is at the previous one.
// It also names the location whose folders are to be removed, first that of the unfinished copy, then, from
// the same commit on, the previous one. So the next start finishes or undoes what a stop of any kind has cut
// off.
namespace filestore {

/// Locations are storage folders, which end with "/". False when the store stays at `previous`, which is
/// logged with the reason; a copy that was begun is removed, at the next start when the database does not
/// work. Ends soon when the agent is to stop.
bool MoveStore(const KelString& previous, const KelString& location);

/// Removes what an earlier move has left elsewhere than at `location`, where the store is.
void FinishEarlierMove(const KelString& location);

}  // namespace filestore

#pragma once

#include <optional>

#include "kel/types.h"

/// The table CallbackThread of the callback database: the URLs of files that have arrived by PUT and are
/// still to be taken in, oldest first. Every change takes mutexCallback. The table is not synced at every
/// change: what a power cut removes is queued again from the upstream store at the next start.
namespace filestore {

/// Adds a URL unless it is there already. From any thread.
void EnqueueArrivedFile(const KelString& url);

/// Takes out the oldest URL; empty when there is none, or when it cannot be removed: it would be given again.
KelString TakeArrivedFile();

unsigned int CountArrivedFiles();

}  // namespace filestore

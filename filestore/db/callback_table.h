#pragma once

#include <cstdint>
#include <optional>

#include "kel/types.h"

/// The table CallbackThread of the callback database: the URLs of files that have arrived by PUT and are
/// still to be taken in, oldest first. Every change takes mutexCallback. The table is not synced at every
/// change: what a power cut removes is queued again from the upstream store at the next start.
namespace filestore {

/// Adds a URL unless it is there already; false when the database does not take it. From any thread.
bool EnqueueArrivedFile(const KelString& url);

struct ArrivedFile {
    std::uint64_t id = 0;  ///< grows in the order of arrival
    KelString url;
};

/// The oldest entry with an id above `after`; nothing when there is none. It stays until it is removed.
std::optional<ArrivedFile> NextArrivedFile(std::uint64_t after);

/// False when the statement failed.
bool RemoveArrivedFile(std::uint64_t id);

unsigned int CountArrivedFiles();

}  // namespace filestore

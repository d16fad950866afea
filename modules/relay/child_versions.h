#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/types.h"

/// The versions of the programs of the devices below this one, as they name them when they ask for its
/// values. Any thread.
class ChildVersions {
  public:
    /// Remembers a child that calls with the texts ChildGuid and ChildVersion; anything else is ignored, as
    /// is a GUID that its certificate does not say.
    void Note(const KelContainer& call, std::int64_t now);

    /// A container with GUID, Version and LastSeen under "Values" for each child that has called lately.
    KelContainer List(std::int64_t now);

  private:
    struct Child {
        KelString version;
        std::int64_t lastSeen;  ///< seconds since the epoch
    };
    void DropSilent(std::int64_t now) KEL_REQUIRES(mutex_);

    KelMutex mutex_;
    KelHash<KelString, Child> children_ KEL_GUARDED_BY(mutex_);
};

#pragma once

#include <cstdint>
#include <functional>

#include "kel/debug.h"
#include "kel/types.h"
#include "modules/relay/unconnected_request.h"

/// Hands the requests that the file store kept in its folders "unconnected/identity" and
/// "unconnected/inventory" back to it, oldest first, and removes those that it accepted. An unusable one is
/// moved to "unconnected/damaged" once it has not changed for a minute: until then it may still be being
/// written. One thread at a time.
class UnconnectedReplay {
  public:
    /// `stop` is called between two requests; true ends the replay.
    UnconnectedReplay(const KelDebug& log, std::function<bool()> stop) : log_(log), stop_(std::move(stop)) {}

    /// Replays the requests in `folder`/identity and `folder`/inventory. `now`: seconds since the epoch.
    /// Calls local actions: no lock may be held.
    void Run(const KelString& folder, std::int64_t now);

  private:
    void Replay(const UnconnectedRequest& kept, const UnconnectedClaim& claim);
    void MoveAside(const KelString& folder, const KelString& path, const KelString& problem);
    void LogOnce(const KelString& problem);

    const KelDebug& log_;
    std::function<bool()> stop_;
    KelString problem_;  ///< last one logged
};

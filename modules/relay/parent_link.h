#pragma once

#include <atomic>
#include <functional>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kel/types.h"
#include "modules/relay/relay_settings.h"

/// What is known about the parent.
struct ParentState {
    KelString ipAddress;  ///< empty until the parent's name was resolved
    KelString guid;       ///< of the last usable answer; empty before the first
    bool inSync = false;  ///< the last call was answered, and our GUID has the scheme of the parent's
};

/// Calls the parent again and again and keeps its state. The first call is made as soon as the thread starts.
/// When the parent answers again, and when its GUID changes, the local action IdentityValidateGUIDScheme is
/// called once the GUID can be read; when that succeeds the parent is in sync and `inSync` is called, else it
/// is tried again. Changes of the state are logged once each.
class ParentLink : public KelPeriodicThread {
  public:
    ParentLink(const KelDebug& log, std::function<void()> inSync);

    /// While the thread does not run. `settledFile` remembers over restarts that this device has found its
    /// place.
    void Configure(const RelaySettings& settings, const KelString& settledFile);

    /// From any thread.
    ParentState GetState() const;

    /// True once this device has taken over its parent's GUID scheme, now or in an earlier run. Before, its
    /// own children wait: they would take over a scheme that is about to change. From any thread.
    bool IsSettled() const { return settled_; }

    /// One call of the parent and its consequences. The thread's step; blocks on the network.
    void Check();

  private:
    void ResolveParent();
    KelString AskParent(KelString& guid);
    KelString TakeOverScheme(const KelString& parentGuid);
    void Settle();
    void ReportProblem(const KelString& problem);

    const KelDebug& log_;
    std::function<void()> inSync_;
    RelaySettings settings_;
    KelString settledFile_;
    std::atomic<bool> settled_ = false;
    mutable KelMutex mutex_;  ///< state_ only; never held across the network or a call
    ParentState state_ KEL_GUARDED_BY(mutex_);
    KelString problem_;  ///< why the parent is out of sync, as logged; only the thread uses it
};

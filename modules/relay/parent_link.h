#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kel/types.h"
#include "modules/relay/relay_settings.h"

/// The state of the link to the parent.
struct ParentState {
    KelString ipAddress;         ///< empty until the parent's name was resolved
    KelString guid;              ///< of the last usable answer; empty before the first
    bool inSync = false;         ///< the last call was answered, and our GUID has the scheme of the parent's
    std::int64_t since = 0;      ///< of inSync, seconds since the epoch; 0: before the first call
    std::int64_t nextCheck = 0;  ///< the same unit
    KelString problem;           ///< why it is out of sync; empty before the first call
};

/// Calls the parent periodically and keeps its state. The first call is made as soon as the thread starts.
/// When the parent answers again, and when its GUID has changed, the local action IdentityValidateGUIDScheme
/// is called; when that succeeds, the parent is in sync and `inSync` is called, otherwise it is tried again.
/// `inSync` is also called when the parent answers a call that was requested. Each change of the state is
/// logged once.
class ParentLink : public KelPeriodicThread {
  public:
    ParentLink(const KelDebug& log, std::function<void()> inSync);

    /// While the thread does not run. The existence of `settledFile` records across restarts that this device
    /// has adopted its parent's scheme.
    void Configure(const RelaySettings& settings, const KelString& settledFile);

    /// From any thread.
    ParentState GetState() const;

    /// True once this device has adopted its parent's GUID scheme, in this run or an earlier one. Until then
    /// its own children wait, because they would adopt a scheme that is about to change. From any thread.
    bool IsSettled() const { return settled_; }

    /// Has the thread call the parent now, or when RetryInterval has passed since the last call: somebody
    /// could not reach it. From any thread.
    void RequestCheck();

    /// Calls the parent once and acts on the answer; `isRequested`: the answer is awaited. Part of the
    /// thread's step; blocks on the network.
    void Check(bool isRequested = false);

  private:
    void CheckWhenDue();
    std::uint64_t MillisecondsToNextCheck() const;
    void ResolveParent();
    KelString AskParent(KelString& guid);
    KelString AdoptScheme(const KelString& parentGuid);
    void Settle();
    void ReportProblem(const KelString& problem);
    void SetInSync(bool inSync, const KelString& problem);

    const KelDebug& log_;
    std::function<void()> inSync_;
    RelaySettings settings_;
    KelString settledFile_;
    std::atomic<bool> settled_ = false;
    std::atomic<bool> isCheckRequested_ = false;
    std::optional<std::chrono::steady_clock::time_point> lastCheck_;  ///< only the thread uses it
    mutable KelMutex mutex_;  ///< never held across the network or a call
    ParentState state_ KEL_GUARDED_BY(mutex_);
};

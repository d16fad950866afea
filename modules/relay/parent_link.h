#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <optional>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/relay/parent_answer.h"
#include "modules/relay/relay_settings.h"

/// The state of the link to the parent.
struct ParentState {
    ParentPlace place;           ///< as the ini file had it when it was last read
    KelString ipAddress;         ///< empty until the parent's name was resolved
    KelString guid;              ///< of the last usable answer; empty before the first
    KelVector<KelString> above;  ///< GUIDs of the devices above this one, the parent first; as of that answer
    KelString ownAddress;        ///< the address that it has by its own account, and calls from
    KelString version;           ///< of its program; empty when it has not said
    std::int64_t timeAhead = 0;  ///< seconds by which its clock is ahead of ours; as of that answer
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
///
/// Before each call the ini file is read: another parent there takes the place of the present one at once,
/// unless it answers that it is this device or lies below it. `changed` is called then; it is also called for
/// a parent that was changed while the agent did not run.
class ParentLink : public KelPeriodicThread {
  public:
    /// Called on the thread; may call actions.
    struct Events {
        std::function<void()> changed;
        /// `former`: "host:port" of another device that was the parent before; empty when there is none.
        std::function<void(const KelString& former)> inSync;
    };

    ParentLink(const KelDebug& log, Events events);

    /// While the thread does not run. In `folder`, the file "settled" records across restarts that this
    /// device has adopted its parent's scheme, and "parent.xml" which parent was in sync last.
    void Configure(const KelString& iniPath, const RelaySettings& settings, const KelString& folder);

    /// From any thread.
    ParentState GetState() const;

    /// True once this device has adopted its parent's GUID scheme, in this run or an earlier one. Until then
    /// its own children wait, because they would adopt a scheme that is about to change. From any thread.
    bool IsSettled() const { return settled_; }

    /// Has the thread call the parent now, or when RetryInterval has passed since the last call: somebody
    /// could not reach it. From any thread.
    void RequestCheck();

    /// Has `inSync` called once more if the parent is in sync. From any thread.
    void ReportAgain();

    /// Writes another parent to the ini file, has the thread take it over, and waits up to ten seconds for
    /// its answer; one that cannot be reached is accepted. The state afterwards. An error, with nothing
    /// changed, for an unusable place, on a master, and when the device there is this one or lies below it.
    /// From any thread but the link's; blocks on the network.
    KelResult<ParentState> SetParent(const ParentPlace& place);

    /// Calls the parent once and acts on the answer; `isRequested`: the answer is awaited. Part of the
    /// thread's step; blocks on the network.
    void Check(bool isRequested = false);

  private:
    void CheckWhenDue();
    std::uint64_t MillisecondsToNextCheck() const;
    void ResolveParent();
    bool NoteAnswer(const ParentAnswer& answer);
    KelString AdoptScheme(const KelString& parentGuid);
    void Settle();
    void ReportProblem(const KelString& problem);
    void SetInSync(bool inSync, const KelString& problem);

    // parent_change.cpp
    void FollowIni();
    KelString TakeFromIni();
    void TakeOver(const ParentPlace& place);
    void LoadLastParent();
    KelString FormerParent(const ParentPlace& place, const KelString& guid) const;
    void RememberParent(const ParentPlace& place, const KelString& guid);

    const KelDebug& log_;
    const Events events_;
    KelString iniPath_;
    KelString folder_;
    RelayRole role_ = RelayRole::Client;
    std::atomic<std::uint32_t> checkInterval_ = 0;  ///< seconds, as is the next
    std::atomic<std::uint32_t> retryInterval_ = 0;
    std::atomic<bool> settled_ = false;
    std::atomic<bool> isCheckRequested_ = false;
    std::atomic<bool> isReportDue_ = false;
    KelMutex mutexIni_;  ///< held across reading and writing the ini file

    // Only the thread uses these, once it runs.
    std::optional<std::chrono::steady_clock::time_point> lastCheck_;
    KelString lastParent_;  ///< "host:port" of the parent that was in sync last, and its GUID
    KelString lastGuid_;
    KelString followed_;    ///< "host:port" of the parent that `changed` has told of
    KelString iniProblem_;  ///< last one logged

    mutable KelMutex mutex_;  ///< never held across the network or a call
    std::condition_variable_any checked_;
    ParentState state_ KEL_GUARDED_BY(mutex_);
    std::uint64_t asked_ KEL_GUARDED_BY(mutex_) = 0;     ///< checks that SetParent has asked for
    std::uint64_t answered_ KEL_GUARDED_BY(mutex_) = 0;  ///< those that have been made
};

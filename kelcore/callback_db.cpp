#include "kelcore/callback_db.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "kel/mutex.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/failure_log.h"

namespace {

/// Codes from here on are a module's own, often an answer such as "I have taken this file".
constexpr unsigned int kFirstModuleCode = 44000;

struct Subscription {
    KelString signature;
    KelString filter;
    int priority = 0;

    bool Is(const KelString& otherSignature, const KelString& otherFilter) const {
        return signature == otherSignature && filter == otherFilter;
    }
};

using Subscriptions = KelVector<Subscription>;  // in the order of the calls

class CallbackRegistry {
  public:
    void Add(const KelString& event, Subscription added) {
        const KelLock lock(mutex_);
        Subscriptions& list = events_[event];
        const auto same = std::find_if(list.begin(), list.end(), [&](const Subscription& one) {
            return one.Is(added.signature, added.filter);
        });
        if (same != list.end()) {
            if (same->priority == added.priority) return;
            list.erase(same);
        }
        const auto place =
            std::upper_bound(list.begin(), list.end(), added.priority,
                             [](int priority, const Subscription& one) { return priority < one.priority; });
        list.insert(place, std::move(added));
    }

    void Remove(const KelString& event, const KelString& signature, const KelString& filter) {
        const KelLock lock(mutex_);
        const auto found = events_.find(event);
        if (found == events_.end()) return;
        std::erase_if(found->second, [&](const Subscription& one) { return one.Is(signature, filter); });
        if (found->second.empty()) events_.erase(found);
    }

    Subscriptions Of(const KelString& event) const {
        const KelLock lock(mutex_);
        const auto found = events_.find(event);
        // A copy, because an action may subscribe and unsubscribe while it runs.
        return found == events_.end() ? Subscriptions() : found->second;
    }

  private:
    mutable KelMutex mutex_;  ///< never held while an action runs
    KelHash<KelString, Subscriptions> events_ KEL_GUARDED_BY(mutex_);
};

CallbackRegistry& Registry() {
    static CallbackRegistry registry;
    return registry;
}

/// Those of the subscribed actions; workers trigger an event again until they succeed.
KelFailureLog& Failures() {
    static KelFailureLog failures(CoreLog());
    return failures;
}

}  // namespace

void CallbackDbRegisterAction(const KelString& eventName, const KelString& actionSignature,
                              const KelString& filter, int priority) {
    Registry().Add(eventName, {actionSignature, filter, priority});
}

void CallbackDbDeleteAction(const KelString& eventName, const KelString& actionSignature,
                            const KelString& filter) {
    Registry().Remove(eventName, actionSignature, filter);
}

unsigned int CallbackDbGetActionCount(const KelString& eventName) {
    return static_cast<unsigned int>(Registry().Of(eventName).size());
}

unsigned int CallbackDbTrigger(const KelString& eventName, const KelContainer& arguments,
                               KelContainer& results) {
    KelContainer codes;
    unsigned int firstFailure = kKelOk;
    for (const Subscription& subscription : Registry().Of(eventName)) {
        const KelString action = ActionNameOfSignature(subscription.signature);
        KelContainer own = arguments;
        const unsigned int code = CallLocal(action, own);
        codes.SetInt32(action, static_cast<std::int32_t>(code));
        const KelString failure = eventName + " " + action;
        if (code == kKelOk) {
            Failures().Succeeded(failure, KelFormat("Event %S: action %S succeeds again", eventName, action));
            continue;
        }
        if (code < kFirstModuleCode) {
            Failures().Failed(
                KelDebugLevel::Warning, failure,
                KelFormat("Event %S: action %S failed: %S", eventName, action, KelErrorText(code)));
        } else {
            CoreLog().Detail("Event %S: action %S answered %u.\n", eventName, action, code);
        }
        if (firstFailure == kKelOk) firstFailure = code;
    }
    results = std::move(codes);
    return firstFailure;
}

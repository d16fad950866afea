#include "kelcore/callback_db.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include "kelcore/action_db.h"
#include "kelcore/action_signature.h"
#include "kelcore/core_log.h"

namespace {

/// From here on codes are a module's own: often an answer, such as a consumer's that it took a file.
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
        const std::lock_guard lock(mutex_);
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
        const std::lock_guard lock(mutex_);
        const auto found = events_.find(event);
        if (found == events_.end()) return;
        std::erase_if(found->second, [&](const Subscription& one) { return one.Is(signature, filter); });
        if (found->second.empty()) events_.erase(found);
    }

    Subscriptions Of(const KelString& event) const {
        const std::lock_guard lock(mutex_);
        const auto found = events_.find(event);
        return found == events_.end() ? Subscriptions() : found->second;
    }

  private:
    mutable std::mutex mutex_;  // guards events_; never held while an action runs
    KelHash<KelString, Subscriptions> events_;
};

CallbackRegistry& Registry() {
    static CallbackRegistry registry;
    return registry;
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
    unsigned int firstFailure = 0;
    for (const Subscription& subscription : Registry().Of(eventName)) {
        const KelString action = ActionNameOfSignature(subscription.signature);
        KelContainer own = arguments;
        const unsigned int code = CallLocal(action, own);
        codes.SetInt32(action, static_cast<std::int32_t>(code));
        if (code == 0) continue;
        if (code < kFirstModuleCode) {
            CoreLog().Warning("Event %S: action %S failed, error %u.\n", eventName, action, code);
        } else {
            CoreLog().Detail("Event %S: action %S answered %u.\n", eventName, action, code);
        }
        if (firstFailure == 0) firstFailure = code;
    }
    results = std::move(codes);
    return firstFailure;
}

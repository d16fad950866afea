#include "kelcore/action_db.h"

#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db_remote.h"
#include "kelcore/agent.h"
#include "kelcore/audit.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/failure_log.h"
#include "kelcore/metrics/metrics_page.h"

namespace {

struct Action {
    Action(const KelActionDescription& of, const char* module, KelActionHandler call)
        : signature(of.signature),
          description(of),
          handle(module != nullptr ? module : ""),
          handler(std::move(call)) {
        description.signature = signature.c_str();
    }
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    KelString signature;
    KelActionDescription description;
    KelString handle;
    KelActionHandler handler;
};

class ActionRegistry {
  public:
    void Add(const KelString& name, std::shared_ptr<const Action> action) {
        const std::lock_guard lock(mutex_);
        // The replaced action, if any, is destroyed with the parameter, after the lock.
        actions_[name].swap(action);
    }

    void RemoveAll(const KelString& handle) {
        KelVector<std::shared_ptr<const Action>> removed;
        std::unique_lock lock(mutex_);
        for (auto at = actions_.begin(); at != actions_.end();) {
            if (at->second->handle != handle) {
                ++at;
                continue;
            }
            removed.push_back(std::move(at->second));
            at = actions_.erase(at);
        }
        callEnded_.wait(lock, [&] { return calls_.find(handle) == calls_.end(); });
    }

    bool Has(const KelString& name) const {
        const std::lock_guard lock(mutex_);
        return actions_.count(name) != 0;
    }

    bool HasFor(const KelString& name, KelCallers caller) const {
        const std::lock_guard lock(mutex_);
        const auto found = actions_.find(name);
        return found != actions_.end() && Admits(found->second->description, caller);
    }

    std::optional<bool> Changes(const KelString& name) const {
        const std::lock_guard lock(mutex_);
        const auto found = actions_.find(name);
        if (found == actions_.end()) return std::nullopt;
        return found->second->description.changes;
    }

    /// Under the lock, because the texts of a description are those of its module.
    KelVector<KelContainer> Describe() const {
        KelVector<KelContainer> descriptions;
        const std::lock_guard lock(mutex_);
        for (const auto& [name, action] : actions_) {
            descriptions.push_back(DescribeAction(action->description));
            descriptions.back().SetString("Module", action->handle);
        }
        return descriptions;
    }

    /// The action, counted as being called until EndCall; null when there is none.
    std::shared_ptr<const Action> BeginCall(const KelString& name) {
        const std::lock_guard lock(mutex_);
        const auto found = actions_.find(name);
        if (found == actions_.end()) return nullptr;
        ++calls_[found->second->handle];
        return found->second;
    }

    void EndCall(std::shared_ptr<const Action> action) {
        const KelString handle = action->handle;
        // RemoveAll returns when the count is gone, and its caller may then destroy what the handler refers
        // to: the handler goes first.
        action.reset();
        const std::lock_guard lock(mutex_);
        const auto found = calls_.find(handle);
        if (--found->second != 0) return;
        calls_.erase(found);
        callEnded_.notify_all();
    }

  private:
    mutable std::mutex mutex_;  ///< guards all below; never held while a handler runs
    std::condition_variable callEnded_;
    std::map<KelString, std::shared_ptr<const Action>> actions_;
    KelHash<KelString, unsigned int> calls_;  ///< in progress per handle, those of replaced actions included
};

ActionRegistry& Registry() {
    static ActionRegistry registry;
    return registry;
}

unsigned int RunHandler(const Action& action, const KelString& name, KelContainer& container) {
    try {
        return action.handler(&container);
    } catch (const std::exception& failure) {
        CoreLog().Error("Action %S failed: %s\n", name, failure.what());
    } catch (...) {
        CoreLog().Error("Action %S failed for an unknown reason.\n", name);
    }
    return kKelErrorInternal;
}

/// An action that is being called; empty when there is none of the name.
class CalledAction {
  public:
    explicit CalledAction(const KelString& name) : action_(Registry().BeginCall(name)) {
        if (!action_) CoreLog().Detail("Action %S is not registered.\n", name);
    }
    ~CalledAction() {
        if (action_) Registry().EndCall(std::move(action_));
    }
    CalledAction(const CalledAction&) = delete;
    CalledAction& operator=(const CalledAction&) = delete;

    explicit operator bool() const { return action_ != nullptr; }
    const Action& operator*() const { return *action_; }
    const Action* operator->() const { return action_.get(); }

  private:
    std::shared_ptr<const Action> action_;
};

constexpr KelMetric kCalls(KelMetric::Kind::Counter, "kel_calls_total",
                           "Calls of actions from outside, those included that were refused.");
constexpr KelMetric kRefused(KelMetric::Kind::Counter, "kel_calls_refused_total",
                             "Calls that were refused because the action is not for the caller.");
KelCounter callsFromOutside, callsRefused;

KelFailureLog& Refusals() {
    static KelFailureLog refusals(CoreLog());
    return refusals;
}

/// The address, and the device where that is proved.
KelString CallerText(const KelCallOrigin& origin) {
    return origin.deviceGuid.empty() ? origin.address : origin.address + " (" + origin.deviceGuid + ")";
}

unsigned int Refuse(const KelActionDescription& description, const KelString& key, const KelString& name,
                    const KelCallOrigin& origin, KelContainer& container) {
    callsRefused.Add();
    const KelCallers callers = description.callers | KelCallers::Local;
    const KelString caller = origin.master.empty() ? "a device at " + CallerText(origin)
                                                   : "an operator at the master " + origin.master;
    const KelString message = callers == KelCallers::Local
                                  ? name + " is for the device's own operator, on the device itself"
                                  : KelFormat("%S is for these callers: %S; %S is none of them", name,
                                              CallersText(callers), caller);
    Refusals().Failed(KelDebugLevel::Warning, key,
                      KelFormat("Call of %S from %S refused: %S", name, CallerText(origin), message));
    container.Clear();
    container.SetString("Message", message);
    return description.refusal;
}

unsigned int RunFor(const KelCallOrigin& origin, const Action& action, const KelString& name,
                    KelContainer& container) {
    callsFromOutside.Add();
    const KelString caller = CallerText(origin);
    const KelString key = name + " " + caller;
    if (!Admits(action.description, origin.callers))
        return Refuse(action.description, key, name, origin, container);
    Refusals().Succeeded(key, KelFormat("%S may call %S now", caller, name));
    SetCallOrigin(origin, container);
    std::optional<AuditedCall> audited;
    if (action.description.changes) audited.emplace(name, container);
    const unsigned int result = RunHandler(action, name, container);
    if (audited) audited->End(result, container);
    container.Remove(kActionRequestInfo);  // the caller's next call must not carry it
    return result;
}

}  // namespace

KelString ActionNameOfSignature(const KelString& signature) {
    return Trim(signature.substr(0, signature.find('(')));
}

void ActionDbRegisterAction(const KelActionDescription& description, KelActionHandler handler,
                            const char* handle) {
    const KelString name = ActionNameOfSignature(description.signature);
    if (name.empty() || !handler) {
        CoreLog().Error("Action \"%s\" cannot be registered: it has no name or no handler.\n",
                        description.signature);
        return;
    }
    Registry().Add(name, std::make_shared<const Action>(description, handle, std::move(handler)));
}

void ActionDbUnregisterAll(const char* handle) {
    Registry().RemoveAll(handle != nullptr ? handle : "");
}

bool ActionDbIsActionRegistered(const KelString& actionName) {
    return Registry().Has(actionName);
}

bool ActionDbAdmits(const KelString& actionName, KelCallers caller) {
    return Registry().HasFor(actionName, caller);
}

std::optional<bool> ActionDbChanges(const KelString& actionName) {
    return Registry().Changes(actionName);
}

KelVector<KelContainer> ActionDbListActions() {
    return Registry().Describe();
}

void ActionDbCollectMetrics(KelMetricsPage& page) {
    page.Add(kCalls, {}, callsFromOutside);
    page.Add(kRefused, {}, callsRefused);
}

unsigned int CallLocal(const KelString& actionName, KelContainer& container) {
    CoreLog().Trace("This device calls %S.\n", actionName);
    const CalledAction action(actionName);
    return action ? RunHandler(*action, actionName, container) : unsigned{kKelErrorUnknownAction};
}

unsigned int CallLocalFor(const KelCallOrigin& origin, const KelString& actionName, KelContainer& container) {
    const CalledAction action(actionName);
    return action ? RunFor(origin, *action, actionName, container) : unsigned{kKelErrorUnknownAction};
}

unsigned int CallLocalFor(const KelPeer& peer, const KelString& operatorName, const KelString& actionName,
                          KelContainer& container) {
    const CalledAction action(actionName);
    if (!action) return kKelErrorUnknownAction;
    KelCallOrigin origin = JudgePeer(peer, action->description.callers);
    origin.operatorName = operatorName;
    return RunFor(origin, *action, actionName, container);
}

unsigned int ActionDbInvokeContainer(const char* source, const KelString& deviceUrl,
                                     const KelString& actionName, KelContainer& container,
                                     [[maybe_unused]] unsigned int flags, int connectTimeout, int callTimeout,
                                     IpAddress* localAddress) {
    if (deviceUrl.empty()) return CallLocal(actionName, container);
    CoreLog().Trace("%s calls %S.\n", source != nullptr ? source : "This device", actionName);
    try {
        return ActionDbInvokeRemote(source != nullptr ? source : "", deviceUrl, actionName, container,
                                    connectTimeout, callTimeout, localAddress);
    } catch (const std::exception& failure) {
        CoreLog().Error("Call of %S on another device failed: %s\n", actionName, failure.what());
        return kKelErrorInternal;
    }
}

unsigned int CallDevice(const KelString& deviceUrl, const KelString& actionName, KelContainer& container) {
    return ActionDbInvokeContainer(nullptr, deviceUrl, actionName, container, 0, -1, -1, nullptr);
}

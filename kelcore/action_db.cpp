#include "kelcore/action_db.h"

#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "kel/text.h"
#include "kelcore/action_db_remote.h"
#include "kelcore/agent.h"
#include "kelcore/audit.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"

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

    std::optional<KelActionAccess> FindAccess(const KelString& name) const {
        const std::lock_guard lock(mutex_);
        const auto found = actions_.find(name);
        if (found == actions_.end()) return std::nullopt;
        const KelActionDescription& description = found->second->description;
        return KelActionAccess{description.callers, description.changes};
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

std::optional<KelActionAccess> ActionDbFindAccess(const KelString& actionName) {
    return Registry().FindAccess(actionName);
}

KelVector<KelContainer> ActionDbListActions() {
    return Registry().Describe();
}

unsigned int CallLocal(const KelString& actionName, KelContainer& container) {
    CoreLog().Trace("This device calls %S.\n", actionName);
    std::shared_ptr<const Action> action = Registry().BeginCall(actionName);
    if (!action) {
        CoreLog().Detail("Action %S is not registered.\n", actionName);
        return kKelErrorUnknownAction;
    }
    const bool isAudited = action->description.changes && ActionIsFromNetwork(container);
    std::optional<AuditedCall> audited;
    if (isAudited) audited.emplace(actionName, container);
    const unsigned int result = RunHandler(*action, actionName, container);
    if (audited) audited->End(result, container);
    Registry().EndCall(std::move(action));
    return result;
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

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kel/temp_folder.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/module.h"
#include "kept_log.h"

/// Values of a container, each "NAME=TEXT"; numbers and bools as text, for reading them converts it back.
using Texts = std::vector<std::string>;

/// `container` with these values set or replaced.
inline KelContainer With(KelContainer container, const Texts& values) {
    for (const std::string& value : values)
        container.SetString(value.substr(0, value.find('=')), value.substr(value.find('=') + 1));
    return container;
}
inline KelContainer With(KelContainer container, const std::string& name, const KelContainer& inner) {
    container.SetContainer(name, inner);
    return container;
}
inline KelContainer Values(const Texts& values) {
    return With(KelContainer(), values);
}

/// `container` must have these values.
inline void ExpectValues(const KelContainer& container, const Texts& expected) {
    for (const std::string& value : expected) {
        const std::string name = value.substr(0, value.find('='));
        EXPECT_EQ(name + "=" + container.GetString(name, "(none)"), value);
    }
}

/// Has ModuleFixture::Call call for a member of the tree at this address; for the device's own operator when
/// it is empty.
inline KelContainer From(const KelContainer& arguments, const std::string& address) {
    KelContainer named = arguments;
    SetCallOrigin({.callers = KelCallers::Unstated, .address = address}, named);
    return named;
}

/// The root of an agent at 127.0.3.1 in a temporary folder, with the action and callback databases of the
/// process. A test runs one module against neighbours that it fakes.
class ModuleFixture : public ::testing::Test {
  protected:
    ModuleFixture() {
        for (const char* folder : {"config", "data"})
            std::filesystem::create_directory(root_ / folder);
        Configure("127.0.3.1");
    }
    ~ModuleFixture() override {
        for (const auto& [event, signature] : subscriptions_)
            CallbackDbDeleteAction(event, signature, {});
        ActionDbUnregisterAll("neighbours");
    }

    void Configure(const std::string& address) {
        KelAgentConfigure({root_ / "config/", root_ / "data/", "tree", "secret", address, log_});
    }

    void WriteIni(const std::string& module, const std::string& text) {
        const std::string path = root_ / ("config/" + module + ".ini");
        TempFolder::Write(path, text);
        std::filesystem::permissions(path, std::filesystem::perms(0600));
    }

    /// An action of a module that is not part of the test.
    static void FakeAction(const std::string& signature, KelActionHandler handler) {
        ActionDbRegisterAction({.signature = signature.c_str(),
                                .purpose = "Fakes a neighbour.",
                                .callers = KelCallers::Child | KelCallers::Parent},
                               std::move(handler), "neighbours");
    }
    /// One that always gives these results.
    static void FakeResults(const std::string& signature, const KelContainer& results) {
        FakeAction(signature, [results](KelContainer* container) {
            *container = results;
            return 0U;
        });
    }
    /// One that always gives these results in its container Values.
    static void FakeValues(const std::string& signature, const Texts& values) {
        FakeResults(signature, With(KelContainer(), "Values", Values(values)));
    }
    /// Lets `handler` see every event of this name.
    void Subscribe(const std::string& event, KelActionHandler handler) {
        const std::string signature = "See" + event + " ()";
        FakeAction(signature, std::move(handler));
        CallbackDbRegisterAction(event, signature, {}, 0);
        subscriptions_.emplace_back(event, signature);
    }
    /// A file store that keeps the offers it is made, except repeated ones of files that it has, and the
    /// content of files that it is to move.
    void FakeFileStore() {
        FakeAction("FileStoreReceiveFile (string FileType)", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            ++offerCalls_;
            if (storeResult_ != 0) return storeResult_;
            const std::string key =
                container->GetString("FileType") + "/" + container->GetString("FileLabel") + "/" +
                container->GetString("FileName") + "/" + container->GetString("FileChecksum");
            if (!offeredKeys_.insert(key).second && container->GetBool("Repeated")) {
                container->SetBool("ContentHeld", true);
                return 0U;
            }
            if (const KelString path = container->GetString("MovePath"); !path.empty()) {
                contents_.emplace_back();
                EXPECT_TRUE(contents_.back().LoadFromFile(path));
                std::filesystem::remove(path);
            }
            offers_.push_back(*container);
            return 0U;
        });
    }
    void SetStoreResult(unsigned int result) {
        const std::lock_guard lock(mutex_);
        storeResult_ = result;
    }
    /// The offers that the fake file store took, and the files that it moved; OfferCalls counts refused ones,
    /// too.
    KelVector<KelContainer> Offers() const {
        const std::lock_guard lock(mutex_);
        return offers_;
    }
    KelVector<KelContainer> Contents() const {
        const std::lock_guard lock(mutex_);
        return contents_;
    }
    std::size_t OfferCount() const { return Offers().size(); }
    int OfferCalls() const {
        const std::lock_guard lock(mutex_);
        return offerCalls_;
    }

    static unsigned int Call(const std::string& action, KelContainer& container) {
        const auto address = IpAddress::Parse(ActionRequestAddress(container));
        const auto proof = address ? KelPeer::Proof::Password : KelPeer::Proof::Socket;
        if (ActionIsFromOutside(container))
            return CallLocalFor(KelPeer{proof, address.value_or(IpAddress())}, {}, action, container);
        return ActionDbInvokeContainer(nullptr, {}, action, container, 0, -1, -1, nullptr);
    }
    static unsigned int Call(const std::string& action, KelContainer&& container) {
        return Call(action, container);
    }
    static KelContainer Call(const std::string& action) {
        KelContainer container;
        EXPECT_EQ(Call(action, container), 0U) << action;
        return container;
    }
    static unsigned int Trigger(const std::string& event, const KelContainer& arguments) {
        KelContainer results;
        return CallbackDbTrigger(event, arguments, results);
    }

    /// Polls for up to ten seconds.
    static bool Eventually(const std::function<bool()>& condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return condition();
    }

    /// Waits until one line of at least `level` holds `part`.
    bool IsLoggedOnce(KelDebugLevel level, const std::string& part) {
        return Eventually([&] { return log_->Count(level, part) == 1; });
    }

    TempFolder root_;
    std::shared_ptr<KeptLog> log_ = std::make_shared<KeptLog>();

  private:
    mutable std::mutex mutex_;  ///< the fake file store's, down to contents_
    unsigned int storeResult_ = 0;
    int offerCalls_ = 0;
    std::set<std::string> offeredKeys_;
    KelVector<KelContainer> offers_;
    KelVector<KelContainer> contents_;
    std::vector<std::pair<std::string, std::string>> subscriptions_;
};

enum class Start { Succeeds, Fails };

/// A module driven through its life: registered and initialised; cleaned up and unregistered at the end.
template <class Module>
class RunningModule {
  public:
    explicit RunningModule(Start expected = Start::Succeeds) {
        char handle[] = "module under test";
        module_.Run(static_cast<unsigned int>(KelModuleOperation::Register), 0, handle);
        EXPECT_EQ(Run(KelModuleOperation::Initialise) == kModuleSuccess, expected == Start::Succeeds);
    }
    ~RunningModule() {
        Run(KelModuleOperation::Cleanup);
        Run(KelModuleOperation::Unregister);
        ActionDbUnregisterAll("module under test");
        KelMetricsUnregisterAll("module under test");
    }

    unsigned int Run(KelModuleOperation operation) {
        return module_.Run(static_cast<unsigned int>(operation), 0, nullptr);
    }
    void Activate() { Run(KelModuleOperation::Activate); }
    void Cleanup() { Run(KelModuleOperation::Cleanup); }
    Module* operator->() { return &module_; }

  private:
    Module module_;
};

template <class Module>
class ActiveModule : public RunningModule<Module> {
  public:
    ActiveModule() { this->Activate(); }
};

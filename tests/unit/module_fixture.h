#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kel/temp_folder.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/module.h"

/// Keeps log lines for a test to look at.
class KeptLog : public KelDebugContext {
  public:
    void Write(KelDebugLevel level, const KelString&, const KelString& line) override {
        const std::lock_guard lock(mutex_);
        lines_.emplace_back(level, line);
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Detail; }

    /// Lines of at least `level` that hold `part`.
    int Count(KelDebugLevel level, const std::string& part) const {
        const std::lock_guard lock(mutex_);
        int count = 0;
        for (const auto& [lineLevel, line] : lines_) {
            if (lineLevel >= level && line.find(part) != std::string::npos) ++count;
        }
        return count;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::pair<KelDebugLevel, std::string>> lines_;
};

/// The root of an agent at 127.0.3.1 in a temporary folder, with the action and callback databases of the
/// process. A test runs one module against neighbours that it fakes.
class ModuleFixture : public ::testing::Test {
  protected:
    ModuleFixture() {
        std::filesystem::create_directories(root_ / "config");
        std::filesystem::create_directories(root_ / "data");
        Configure("127.0.3.1");
    }
    ~ModuleFixture() override { ActionDbUnregisterAll("neighbours"); }

    void Configure(const std::string& address) {
        KelAgentConfigure({root_ / "config/", root_ / "data/", "tree", "secret", address, log_});
    }

    void WriteIni(const std::string& module, const std::string& text) {
        TempFolder::Write(root_ / ("config/" + module + ".ini"), text);
    }

    /// An action of a module that is not part of the test.
    static void FakeAction(const std::string& signature, KelActionHandler handler) {
        ActionDbRegisterAction(signature, std::move(handler), "neighbours");
    }

    static unsigned int Call(const std::string& action, KelContainer& container) {
        return ActionDbInvokeContainer(nullptr, {}, action, container, 0, -1, -1, nullptr);
    }
    static KelContainer Call(const std::string& action) {
        KelContainer container;
        EXPECT_EQ(Call(action, container), 0U) << action;
        return container;
    }

    /// Polls for up to ten seconds.
    static bool Eventually(const std::function<bool()>& condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return condition();
    }

    TempFolder root_;
    std::shared_ptr<KeptLog> log_ = std::make_shared<KeptLog>();
};

/// A module driven through its life: registered, and cleaned up and unregistered at the end.
template <class Module>
class RunningModule {
  public:
    RunningModule() {
        char handle[] = "module under test";
        module_.Run(static_cast<unsigned int>(KelModuleOperation::Register), 0, handle);
    }
    ~RunningModule() {
        Run(KelModuleOperation::Cleanup);
        Run(KelModuleOperation::Unregister);
        ActionDbUnregisterAll("module under test");
    }

    unsigned int Run(KelModuleOperation operation) {
        return module_.Run(static_cast<unsigned int>(operation), 0, nullptr);
    }
    bool Initialise() { return Run(KelModuleOperation::Initialise) == kModuleSuccess; }
    void Activate() { Run(KelModuleOperation::Activate); }
    void Cleanup() { Run(KelModuleOperation::Cleanup); }
    Module* operator->() { return &module_; }

  private:
    Module module_;
};

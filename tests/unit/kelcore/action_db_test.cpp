#include "kelcore/action_db.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"

using testing::ElementsAre;

namespace {

unsigned int Call(const KelString& action, KelContainer& container) {
    return ActionDbInvokeContainer(nullptr, "", action, container, 0, -1, -1, nullptr);
}

unsigned int Call(const KelString& action) {
    KelContainer container;
    return Call(action, container);
}

KelActionHandler Returning(unsigned int code) {
    return [code](KelContainer*) { return code; };
}

class ActionDbTest : public testing::Test {
  protected:
    ~ActionDbTest() override {
        ActionDbUnregisterAll("First");
        ActionDbUnregisterAll("Second");
    }
};

TEST_F(ActionDbTest, ActionsAreCalledByTheNameInTheirSignature) {
    const KelVector<KelString> signatures = {"Bare", "Plain ()",
                                             "  Spaced   (string Name, container Values)"};
    for (const KelString& signature : signatures)
        ActionDbRegisterAction(signature, Returning(7), "First");
    for (const KelString name : {"Bare", "Plain", "Spaced"}) {
        EXPECT_TRUE(ActionDbIsActionRegistered(name)) << name;
        EXPECT_EQ(Call(name), 7u) << name;
    }
    for (const KelString name : {"Plain ()", "plain", "", "Missing"}) {
        EXPECT_FALSE(ActionDbIsActionRegistered(name)) << name;
        EXPECT_EQ(Call(name), kKelErrorUnknownAction) << name;
    }
    EXPECT_THAT(ActionDbListActions(), ElementsAre(signatures[2], signatures[0], signatures[1]));
    ActionDbRegisterAction("()", Returning(0), "First");
    EXPECT_EQ(ActionDbListActions().size(), 3u);
}

TEST_F(ActionDbTest, ArgumentsGoInAndResultsComeOut) {
    ActionDbRegisterAction(
        "Double (int32 Value)",
        [](KelContainer* container) {
            const std::int32_t value = container->GetInt32("Value");
            container->Clear();
            container->SetInt32("Result", 2 * value);
            return 3u;
        },
        "First");
    KelContainer container;
    container.SetInt32("Value", 21);
    EXPECT_EQ(Call("Double", container), 3u);
    EXPECT_EQ(container.GetInt32("Result"), 42);
    EXPECT_FALSE(container.Has("Value"));
}

TEST_F(ActionDbTest, UnregisteringTouchesOneModuleOnly) {
    ActionDbRegisterAction("Shared ()", Returning(1), "First");
    ActionDbRegisterAction("Own ()", Returning(1), "First");
    ActionDbRegisterAction("Shared ()", Returning(2), "Second");
    EXPECT_EQ(Call("Shared"), 2u);
    ActionDbUnregisterAll("First");
    EXPECT_EQ(Call("Own"), kKelErrorUnknownAction);
    EXPECT_EQ(Call("Shared"), 2u);
    ActionDbUnregisterAll("Nobody");
}

TEST_F(ActionDbTest, WhatAHandlerThrowsStaysInside) {
    ActionDbRegisterAction(
        "Throws ()", [](KelContainer*) -> unsigned int { throw std::runtime_error("bad"); }, "First");
    ActionDbRegisterAction(
        "ThrowsInt ()", [](KelContainer*) -> unsigned int { throw 5; }, "First");
    EXPECT_EQ(Call("Throws"), kKelErrorInternal);
    EXPECT_EQ(Call("ThrowsInt"), kKelErrorInternal);
    ActionDbUnregisterAll("First");  // would hang if a failed call still counted
}

TEST_F(ActionDbTest, HandlersMayCallAndRegisterActions) {
    ActionDbRegisterAction("Inner ()", Returning(4), "Second");
    ActionDbRegisterAction(
        "Outer ()",
        [](KelContainer*) {
            ActionDbRegisterAction("Late ()", Returning(5), "Second");
            return Call("Inner") + Call("Late");
        },
        "First");
    EXPECT_EQ(Call("Outer"), 9u);
}

TEST_F(ActionDbTest, AHandlerRunsOnSeveralThreadsAtOnce) {
    std::promise<void> bothInside;
    std::atomic<int> inside = 0;
    ActionDbRegisterAction(
        "Meet ()",
        [&, met = bothInside.get_future().share()](KelContainer*) {
            if (++inside == 2) bothInside.set_value();
            return met.wait_for(std::chrono::seconds(60)) == std::future_status::ready ? 0u : 1u;
        },
        "First");
    auto first = std::async(std::launch::async, [] { return Call("Meet"); });
    auto second = std::async(std::launch::async, [] { return Call("Meet"); });
    EXPECT_EQ(first.get(), 0u);
    EXPECT_EQ(second.get(), 0u);
}

TEST_F(ActionDbTest, UnregisteringWaitsForCallsEvenOfReplacedActions) {
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> ended = false;
    const auto alive = std::make_shared<int>(0);
    ActionDbRegisterAction(
        "Slow ()",
        [&, alive](KelContainer*) {
            entered.set_value();
            release.get_future().wait();
            ended = true;
            return 6u;
        },
        "First");
    auto call = std::async(std::launch::async, [] { return Call("Slow"); });
    entered.get_future().wait();
    ActionDbRegisterAction("Slow ()", Returning(0), "Second");

    std::atomic<bool> waiting = false;
    std::thread unregister([&] {
        waiting = true;
        ActionDbUnregisterAll("First");
        EXPECT_TRUE(ended);
        EXPECT_EQ(alive.use_count(), 1) << "the handler object of an unloaded module must be gone";
    });
    while (!waiting)
        std::this_thread::yield();
    EXPECT_EQ(Call("Slow"), 0u) << "other calls go on meanwhile";
    release.set_value();
    unregister.join();
    EXPECT_EQ(call.get(), 6u);
}

TEST_F(ActionDbTest, CallsRaceWithRegistration) {
    std::atomic<bool> stop = false;
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i)
        callers.emplace_back([&] {
            while (!stop) {
                const unsigned int code = Call("Racing");
                EXPECT_TRUE(code == 0 || code == kKelErrorUnknownAction);
            }
        });
    for (int round = 0; round < 200; ++round) {
        auto state = std::make_unique<std::atomic<int>>(0);
        ActionDbRegisterAction(
            "Racing ()",
            [raw = state.get()](KelContainer*) {
                ++*raw;
                return 0u;
            },
            "First");
        ActionDbUnregisterAll("First");
        state.reset();  // a call that still ran would use freed memory
    }
    stop = true;
    for (std::thread& caller : callers)
        caller.join();
}

class CallbackDbTest : public ActionDbTest {
  protected:
    CallbackDbTest() {
        for (const char* name : {"A", "B", "C"})
            ActionDbRegisterAction(
                KelString(name) + " (string Text)",
                [this, name](KelContainer* container) {
                    calls_ += name + container->GetString("Text");
                    container->SetString("Text", "spoilt");
                    return codes_[name];
                },
                "First");
    }
    ~CallbackDbTest() override {
        for (const char* name : {"A", "B", "C", "Gone"})
            CallbackDbDeleteAction("Event", KelString(name) + " (string Text)", "");
    }
    void Subscribe(const char* name, int priority) {
        CallbackDbRegisterAction("Event", KelString(name) + " (string Text)", "", priority);
    }
    unsigned int Trigger() {
        calls_.clear();
        KelContainer arguments;
        arguments.SetString("Text", "x");
        return CallbackDbTrigger("Event", arguments, results_);
    }

    KelString calls_;
    KelHash<KelString, unsigned int> codes_;
    KelContainer results_;
};

TEST_F(CallbackDbTest, CallsEverySubscriberOnceByPriority) {
    EXPECT_EQ(Trigger(), 0u);
    EXPECT_EQ(calls_, "");
    Subscribe("C", 0);
    Subscribe("B", 0);
    Subscribe("A", -1);
    Subscribe("C", 0);
    EXPECT_EQ(CallbackDbGetActionCount("Event"), 3u);
    EXPECT_EQ(Trigger(), 0u);
    EXPECT_EQ(calls_, "AxCxBx");
    Subscribe("A", 5);
    EXPECT_EQ(CallbackDbGetActionCount("Event"), 3u);
    EXPECT_EQ(Trigger(), 0u);
    EXPECT_EQ(calls_, "CxBxAx");
    CallbackDbDeleteAction("Event", "C (string Text)", "other filter");
    CallbackDbDeleteAction("Event", "B (string Text)", "");
    EXPECT_EQ(Trigger(), 0u);
    EXPECT_EQ(calls_, "CxAx");
}

TEST_F(CallbackDbTest, ReportsEachCodeAndTheFirstFailure) {
    for (const char* name : {"A", "Gone", "B", "C"})
        Subscribe(name, 0);
    codes_["B"] = 9;
    EXPECT_EQ(Trigger(), kKelErrorUnknownAction);
    EXPECT_EQ(calls_, "AxBxCx") << "a failure does not stop the others";
    EXPECT_EQ(results_.GetInt32("A", -1), 0);
    EXPECT_EQ(results_.GetInt32("Gone"), static_cast<std::int32_t>(kKelErrorUnknownAction));
    EXPECT_EQ(results_.GetInt32("B"), 9);
    EXPECT_EQ(results_.GetNameCount(), 4u);
}

TEST_F(CallbackDbTest, ASubscriberMayUnsubscribeWhileItIsCalled) {
    ActionDbRegisterAction(
        "A (string Text)",
        [](KelContainer*) {
            CallbackDbDeleteAction("Event", "A (string Text)", "");
            return 0u;
        },
        "First");
    Subscribe("A", 0);
    Subscribe("B", 0);
    EXPECT_EQ(Trigger(), 0u);
    EXPECT_EQ(calls_, "Bx");
    EXPECT_EQ(CallbackDbGetActionCount("Event"), 1u);
}

}  // namespace

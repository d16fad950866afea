#include "kelcore/action_db.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/json.h"

namespace {

unsigned int Call(const KelString& action, KelContainer* container = nullptr) {
    KelContainer none;
    return ActionDbInvokeContainer(nullptr, "", action, container != nullptr ? *container : none, 0, -1, -1,
                                   nullptr);
}

void Register(const KelString& signature, KelActionHandler handler, const char* module = "First") {
    ActionDbRegisterAction(signature, std::move(handler), module);
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
    const KelVector<KelString> sorted = {"  Spaced   (string Name, container Values)", "Bare", "Plain ()"};
    for (const KelString& signature : sorted)
        Register(signature, Returning(7));
    Register("()", Returning(0));
    for (const KelString name : {"Bare", "Plain", "Spaced"}) {
        EXPECT_TRUE(ActionDbIsActionRegistered(name)) << name;
        EXPECT_EQ(Call(name), 7u) << name;
    }
    for (const KelString name : {"Plain ()", "plain", "", "Missing"}) {
        EXPECT_FALSE(ActionDbIsActionRegistered(name)) << name;
        EXPECT_EQ(Call(name), kKelErrorUnknownAction) << name;
    }
    EXPECT_EQ(ActionDbListActions(), sorted);
}

TEST_F(ActionDbTest, WhatAHandlerThrowsStaysInside) {
    Register("Throws ()", [](KelContainer*) -> unsigned int { throw std::runtime_error("bad"); });
    Register("ThrowsInt ()", [](KelContainer*) -> unsigned int { throw 5; });
    EXPECT_EQ(Call("Throws"), kKelErrorInternal);
    EXPECT_EQ(Call("ThrowsInt"), kKelErrorInternal);
    ActionDbUnregisterAll("First");  // would hang if a failed call still counted
}

TEST_F(ActionDbTest, HandlersMayCallAndRegisterActions) {
    Register("Inner (int32 Value)", [](KelContainer* container) {
        const std::int32_t value = container->GetInt32("Value");
        container->Clear();
        container->SetInt32("Result", 2 * value);
        return 4u;
    });
    Register("Outer (int32 Value)", [](KelContainer* container) {
        Register("Late ()", Returning(5));
        return Call("Inner", container) + Call("Late");
    });
    KelContainer container;
    container.SetInt32("Value", 21);
    EXPECT_EQ(Call("Outer", &container), 9u);
    EXPECT_EQ(container.GetInt32("Result"), 42);
    EXPECT_FALSE(container.Has("Value"));
}

TEST_F(ActionDbTest, AHandlerRunsOnSeveralThreadsAtOnce) {
    std::promise<void> bothInside;
    std::atomic<int> inside = 0;
    Register("Meet ()", [&, met = bothInside.get_future().share()](KelContainer*) {
        if (++inside == 2) bothInside.set_value();
        return met.wait_for(std::chrono::seconds(60)) == std::future_status::ready ? 0u : 1u;
    });
    auto other = std::async(std::launch::async, [] { return Call("Meet"); });
    EXPECT_EQ(Call("Meet"), 0u);
    EXPECT_EQ(other.get(), 0u);
}

TEST_F(ActionDbTest, UnregisteringAModuleWaitsForItsCallsEvenOfReplacedActions) {
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> ended = false;
    const auto alive = std::make_shared<int>(0);
    Register("Slow ()", [&, alive](KelContainer*) {
        entered.set_value();
        release.get_future().wait();
        ended = true;
        return 6u;
    });
    auto call = std::async(std::launch::async, [] { return Call("Slow"); });
    entered.get_future().wait();
    Register("Slow ()", Returning(0), "Second");
    Register("Own ()", Returning(1));

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
    EXPECT_EQ(Call("Own"), kKelErrorUnknownAction);
    EXPECT_EQ(Call("Slow"), 0u);
}

class CallbackDbTest : public ActionDbTest {
  protected:
    CallbackDbTest() {
        for (const char* name : {"A", "B", "C"})
            Register(Signature(name), [this, name](KelContainer* container) {
                calls_ += name + container->GetString("Text");
                container->SetString("Text", "spoilt");
                return codes_[name];
            });
    }
    ~CallbackDbTest() override {
        for (const char* name : {"A", "B", "C", "Gone"})
            Unsubscribe(name);
    }
    static KelString Signature(const KelString& name) { return name + " (string Text)"; }
    static void Subscribe(const char* name, int priority) {
        CallbackDbRegisterAction("Event", Signature(name), "", priority);
    }
    static void Unsubscribe(const char* name, const char* filter = "") {
        CallbackDbDeleteAction("Event", Signature(name), filter);
    }
    /// Triggers the event; the calls made.
    KelString Calls(unsigned int code = 0) {
        calls_.clear();
        KelContainer arguments;
        arguments.SetString("Text", "x");
        EXPECT_EQ(CallbackDbTrigger("Event", arguments, results_), code);
        return calls_;
    }

    KelString calls_;
    KelHash<KelString, unsigned int> codes_;
    KelContainer results_;
};

TEST_F(CallbackDbTest, CallsEverySubscriberOnceByPriority) {
    EXPECT_EQ(Calls(), "");
    Subscribe("C", 0);
    Subscribe("B", 0);
    Subscribe("A", -1);
    Subscribe("C", 0);
    EXPECT_EQ(Calls(), "AxCxBx");
    Subscribe("A", 5);
    EXPECT_EQ(CallbackDbGetActionCount("Event"), 3u);
    EXPECT_EQ(Calls(), "CxBxAx");
    Unsubscribe("C", "other filter");
    Unsubscribe("B");
    EXPECT_EQ(Calls(), "CxAx");
}

TEST_F(CallbackDbTest, ReportsEachCodeAndTheFirstFailure) {
    for (const char* name : {"A", "Gone", "B", "C"})
        Subscribe(name, 0);
    codes_["B"] = 9;
    EXPECT_EQ(Calls(kKelErrorUnknownAction), "AxBxCx") << "a failure does not stop the others";
    EXPECT_EQ(ContainerToJson(results_),
              R"({"A":0,"Gone":)" + std::to_string(kKelErrorUnknownAction) + R"(,"B":9,"C":0})");
}

TEST_F(CallbackDbTest, ASubscriberMayUnsubscribeWhileItIsCalled) {
    Register(Signature("A"), [](KelContainer*) { return Unsubscribe("A"), 0u; });
    Subscribe("A", 0);
    Subscribe("B", 0);
    EXPECT_EQ(Calls(), "Bx");
    EXPECT_EQ(CallbackDbGetActionCount("Event"), 1u);
}

}  // namespace

#include "kelcore/action_db.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "kelcore/json.h"
#include "kelcore/module.h"
#include "test_http_server.h"

namespace {

unsigned int Call(const KelString& action, KelContainer* container = nullptr) {
    KelContainer none;
    return ActionDbInvokeContainer(nullptr, "", action, container != nullptr ? *container : none, 0, -1, -1,
                                   nullptr);
}

void Register(const KelString& signature, KelActionHandler handler, const char* module = "First") {
    ActionDbRegisterAction({.signature = signature.c_str(), .purpose = "Serves a test."}, std::move(handler),
                           module);
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
    KelVector<KelString> listed;
    for (const KelContainer& action : ActionDbListActions())
        listed.push_back(action.GetString("Signature"));
    EXPECT_EQ(listed, (KelVector<KelString>{"Bare ()", "Plain ()", sorted.front()}));
}

TEST_F(ActionDbTest, WhatAHandlerThrowsStaysInside) {
    Register("Throws ()", [](KelContainer*) -> unsigned int { throw std::runtime_error("bad"); });
    Register("ThrowsInt ()", [](KelContainer*) -> unsigned int { throw 5; });
    EXPECT_EQ(Call("Throws"), kKelErrorInternal);
    EXPECT_EQ(Call("ThrowsInt"), kKelErrorInternal);
    ActionDbUnregisterAll("First");  // would hang if a failed call still counted
}

TEST_F(ActionDbTest, UnregisteringAModuleWaitsForItsCallsEvenOfReplacedActions) {
    std::promise<void> bothInside, release;
    std::atomic<int> inside = 0, ended = 0;
    const auto alive = std::make_shared<int>(0);
    Register("Slow ()", [&, alive, released = release.get_future().share()](KelContainer*) {
        if (++inside == 2) bothInside.set_value();  // a handler runs on several threads at once
        released.wait();
        return ++ended, 6u;
    });
    const auto call = [] { return Call("Slow"); };
    auto first = std::async(std::launch::async, call), second = std::async(std::launch::async, call);
    bothInside.get_future().wait();
    Register("Slow ()", Returning(0), "Second");
    Register("Own ()", Returning(1));

    std::atomic<bool> waiting = false;
    std::thread unregister([&] {
        waiting = true;
        ActionDbUnregisterAll("First");
        EXPECT_EQ(ended, 2);
        EXPECT_EQ(alive.use_count(), 1) << "the handler object of an unloaded module must be gone";
    });
    while (!waiting)
        std::this_thread::yield();
    EXPECT_EQ(Call("Slow"), 0u) << "other calls go on meanwhile";
    release.set_value();
    unregister.join();
    EXPECT_EQ(first.get() + second.get(), 12u);
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
    EXPECT_EQ(Calls(), "Bx");
}

class FailingModule : public KelModule {
  public:
    FailingModule() : KelModule("Failing", "Failing module") {}

  protected:
    void Register(const char*) override { throw std::runtime_error("broken"); }
    void Unregister() override { throw 5; }
    bool Activate() override { return false; }
    bool Suspend() override { return false; }
    std::optional<KelString> ServerAddress() const override { return KelString(1000, 'x'); }
};

TEST(Module, FailuresAndUnknownOperationsAreResultsAndTextsAreCutToTheirBuffer) {
    char buffer[kModuleTextBytes];
    for (const unsigned int failing : {1, 2, 4, 9})
        EXPECT_EQ(FailingModule().Run(failing, 0, buffer), kModuleFailure) << failing;
    for (const unsigned int unknown : {0, 8, 4096})
        EXPECT_EQ(FailingModule().Run(unknown, 0, buffer), 5U) << unknown;
    EXPECT_EQ(FailingModule().Run(10, 0, buffer), kModuleSuccess);
    EXPECT_EQ(KelString(buffer), KelString(kModuleTextBytes - 1, 'x'));
}

// ---- calls of other devices

KelString UrlOf(const TestHttpServer& server) {
    return UrlForAgent("agent", "pass word", server.HostAndPort()) + "/ignored/path";
}

/// A call that fails: its code. The container must stay as it was.
unsigned int FailingCall(const KelString& deviceUrl) {
    KelContainer container;
    container.SetInt32("Kept", 1);
    const unsigned int result =
        ActionDbInvokeContainer("Test", deviceUrl, "SampleAction", container, 0, 5, 5, nullptr);
    EXPECT_EQ(container.GetInt32("Kept"), 1);
    return result;
}

TEST(RemoteAction, AFailureLeavesTheContainerAsItWas) {
    const KelString challenge =
        "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256, qop=\"auth\"\r\n";
    const KelString empty = "<Container></Container>";
    const std::tuple<const char*, TestHttpServer::Answer, unsigned int> cases[] = {
        {"unknown action", {404, "", ""}, kKelErrorUnknownAction},
        {"unauthorised", {401, challenge, ""}, kKelErrorCredentials},
        {"too large", {413, "Kel-Result: 0\r\n", ""}, kKelErrorBadAnswer},
        {"no result", {200, "", empty}, kKelErrorBadAnswer},
        {"no number", {200, "Kel-Result: 1x\r\n", empty}, kKelErrorBadAnswer},
        {"large number", {200, "Kel-Result: 4294967296\r\n", empty}, kKelErrorBadAnswer},
        {"malformed body", {200, "Kel-Result: 0\r\n", "<Container>"}, kKelErrorBadAnswer},
        {"no answer", {0}, kKelErrorUnreachable},
    };
    KelString url;
    for (const auto& [name, answer, result] : cases) {
        TestHttpServer server([&answer = answer](const auto&) { return answer; });
        url = UrlOf(server);
        EXPECT_EQ(FailingCall(url), result) << name;
    }
    for (const KelString& device : {url, KelString("ftp://host"), KelString("http://")})
        EXPECT_EQ(FailingCall(device), kKelErrorUnreachable) << device << ": no server, or no address of one";
}

TEST_F(ActionDbTest, DescriptionsListWhatAnActionTakesAndGives) {
    constexpr const char* kInputs =
        "string Name, container Tree[]? (of {all}, a, b) {int64 Size (B), bool *}";
    for (const char* signature : {"Described", "Described (string Name)"}) {
        const KelActionDescription description{.signature = signature,
                                               .purpose = "Does it.",
                                               .inputs =
                                                   "string Name, container Tree[]? (of {all}, a, b) "
                                                   "{int64 Size (B), bool *}",
                                               .callers = KelCallers::Child | KelCallers::Operator,
                                               .changes = true};
        ActionDbRegisterAction(description, Returning(0), "First");
        const KelContainer listed = ActionDbListActions().front();
        EXPECT_EQ(listed.GetString("Module"), "First");
        EXPECT_EQ(listed.GetString("Callers"), "local, child, operator");
        EXPECT_TRUE(listed.GetBool("Changes"));
        EXPECT_EQ(listed.GetString("Signature"), description.inputs.IsGiven() && signature[9] == '\0'
                                                     ? "Described (string Name, container Tree)"
                                                     : signature);
        EXPECT_EQ(DescribedValuesText(listed, "Inputs"), kInputs);
        EXPECT_TRUE(listed.GetContainer("Inputs", 1).GetBool("Several"));
    }
    Register("FromSignature (bool Flag, int32 Number)", Returning(0));
    EXPECT_EQ(DescribedValuesText(ActionDbListActions().back(), "Inputs"), "bool Flag, int32 Number");
    static_assert(!IsValueList("text Name") && !IsValueList("string") && !IsValueList("string A,bool B"));
    static_assert(!IsValueList("string A, ") && !IsValueList("container C {bool}"));
}

}  // namespace

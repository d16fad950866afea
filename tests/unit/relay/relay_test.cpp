#include "modules/relay/relay.h"

#include <gmock/gmock.h>

#include "kelcore/call_origin.h"
#include "kelcore/callback_db.h"
#include "kelcore/http/client.h"
#include "module_fixture.h"
#include "modules/relay/relay_settings.h"
#include "test_http_server.h"

namespace {

const std::string kGuid = "ABCD0000-1111-2222-3333-444444444444";
const std::string kOtherGuid = "EF010000-1111-2222-3333-444444444444";
const std::string kOurGuid = "12340000-1111-2222-3333-444444444444";

/// A parent at 127.0.1.1 that answers every action call with a GUID.
class FakeParent {
  public:
    explicit FakeParent(const std::string& guid) : guid_(guid) { RelaySettings::msPerSecond = 10; }

    /// The ini file of the relay module of a device below it.
    std::string ChildIni(const std::string& role) const {
        return "[Relay]\nRole=" + role + "\nParentName=127.0.1.1\nParentPort=" + std::to_string(Port()) +
               "\nCheckInterval=1\nRetryInterval=1\n";
    }
    int Port() const { return server_.Port(); }
    void SetGuid(const std::string& guid) {
        const std::lock_guard lock(mutex_);
        guid_ = guid;
    }
    std::size_t GetCallCount() { return server_.Requests().size(); }

    std::atomic<unsigned int> status = 200;  ///< of the HTTP answers
    std::atomic<bool> failsOnce = false;     ///< answers the next call with 500
    std::atomic<bool> isSettled = true;      ///< what it says of its scheme
    std::atomic<bool> isBelow = false;       ///< names our device among those above it

  private:
    TestHttpServer::Answer AnswerCall() {
        const std::lock_guard lock(mutex_);
        const KelContainer values =
            Values({"GUID=" + guid_, std::string("SchemeSettled=") + (isSettled ? "true" : "false"),
                    "Version=9.9", "IPAddress=10.9.9.9", "Time=" + std::to_string(std::time(nullptr) + 500)});
        auto answer = TestHttpServer::ActionResult(
            0, With({}, "Values", isBelow ? With(values, {"Above=" + kOurGuid}) : values));
        answer.status = failsOnce.exchange(false) ? 500U : status.load();
        return answer;
    }

    std::mutex mutex_;  ///< guid_
    std::string guid_;
    TestHttpServer server_{[this](const auto&) { return AnswerCall(); }};
};

class RelayTest : public ModuleFixture {
  protected:
    void SetUp() override {
        Configure("");
        FakeAction("TestInSync ()", [this](KelContainer*) { return ++reports_, 0U; });
        CallbackDbRegisterAction("RelayCallbackParentInSync", "TestInSync ()", "", 0);
        FakeResults("IdentityGetGUID ()", Values({"GUID=" + kOurGuid}));
        FakeAction("IdentityValidateGUIDScheme ()", [this](KelContainer*) {
            // The handler reads the parent's GUID; until it is done no device may rely on our scheme.
            const KelContainer values = RelayValues();
            if (!values.GetString("ParentGuid").empty() && !values.GetBool("ParentSync")) ++validations_;
            if (!values.GetBool("SchemeSettled")) ++unsettled_;
            return failures_ > 0 && failures_-- > 0 ? unsigned{kKelErrorInternal} : 0U;
        });
    }
    void TearDown() override {
        CallbackDbDeleteAction("RelayCallbackParentInSync", "TestInSync ()", "");
        HttpClientCloseIdleConnections();
    }

    static KelContainer RelayValues() { return Call("RelayGetValues").GetContainer("Values"); }
    static bool IsInSync() { return RelayValues().GetBool("ParentSync"); }

    std::atomic<int> validations_ = 0;
    std::atomic<int> unsettled_ = 0;
    std::atomic<int> reports_ = 0;   ///< that the parent answers again
    std::atomic<int> failures_ = 0;  ///< of the next validations
};

TEST_F(RelayTest, UnusableSettingsAreRefused) {
    for (const std::string settings :
         {"Role=", "Role=boss", "Role=master\nParentName=a\nParentPort=1", "Role=client\nParentName=a",
          "Role=client\nParentName=a\nParentPort=0", "Role=client\nParentName=a\nParentPort=65536",
          "Role=relay\nParentName=a b\nParentPort=80", "Role=relay\nParentName=a@b\nParentPort=80"}) {
        SCOPED_TRACE(settings);
        WriteIni("Relay", "[Relay]\n" + settings + "\n");
        RunningModule<Relay> module(Start::Fails);
    }
}

TEST_F(RelayTest, AnAnsweringParentIsInSyncAndValidatesTheSchemeOncePerGuid) {
    FakeParent parent(kGuid);
    WriteIni("Relay", parent.ChildIni("client"));
    RunningModule<Relay> module;
    EXPECT_FALSE(IsInSync());
    module.Activate();
    ASSERT_TRUE(Eventually(IsInSync));
    const std::size_t calls = parent.GetCallCount();
    ASSERT_TRUE(Eventually([&] { return parent.GetCallCount() >= calls + 2; }));
    ExpectValues(RelayValues(), {"IsEnabled=false", "Role=client", "ParentIPAddress=127.0.1.1",
                                 "ParentGuid=" + kGuid, "ParentPort=" + std::to_string(parent.Port())});
    EXPECT_EQ(validations_, 1) << "a steady parent was validated more than once";
    EXPECT_EQ(reports_, 1);
    Call("RelayCheckParent");  // somebody could not reach it
    EXPECT_TRUE(Eventually([this] { return reports_ == 2; }));
    KelContainer none;
    CallbackDbTrigger("AgentCallbackReady", {}, none);
    EXPECT_TRUE(Eventually([this] { return reports_ == 3; })) << "it could not call this device before";
    parent.SetGuid(kOtherGuid);
    EXPECT_TRUE(Eventually([this] { return validations_ == 2; }));
}

TEST_F(RelayTest, ParentAndChildrenTellTheirVersions) {
    FakeParent parent(kGuid);
    WriteIni("Relay", parent.ChildIni("relay"));
    ActiveModule<Relay> module;
    ASSERT_TRUE(Eventually(IsInSync));
    ExpectValues(RelayValues(), {"ParentVersion=9.9", "ParentOwnAddress=10.9.9.9"});
    const std::int64_t ahead = RelayValues().GetInt64("ParentTimeAhead");
    EXPECT_TRUE(ahead > 400 && ahead <= 500) << ahead;

    for (const std::string& version : KelVector<std::string>{"8.8", "1\n2", std::string(65, 'v')})
        Call("RelayGetValues", Values({"ChildGuid=" + kOtherGuid, "ChildVersion=" + version}));
    Call("RelayGetValues", Values({"ChildGuid=x", "ChildVersion=1"}));
    const KelContainer children = Call("RelayListChildren");
    ASSERT_EQ(children.Count("Values"), 1U);
    ExpectValues(children.GetContainer("Values"), {"GUID=" + kOtherGuid, "Version=8.8"});
}

TEST_F(RelayTest, AParentWithoutItsOwnPlaceIsWaitedForOnlyTheFirstTime) {
    FakeParent parent(kGuid);
    parent.isSettled = false;
    parent.failsOnce = true;  // it comes up between our questions
    WriteIni("Relay", parent.ChildIni("relay"));
    {
        ActiveModule<Relay> module;
        ASSERT_TRUE(IsLoggedOnce(KelDebugLevel::Warning, "not found its own parent"));
        ExpectValues(RelayValues(), {"ParentSync=false", "SchemeSettled=false"});
        parent.isSettled = true;
        ASSERT_TRUE(Eventually([] { return RelayValues().GetBool("SchemeSettled"); }));
    }
    // A parent that starts again and has lost sight of those above still serves its children.
    parent.isSettled = false;
    ActiveModule<Relay> module;
    ExpectValues(RelayValues(), {"SchemeSettled=true"});
    EXPECT_TRUE(Eventually(IsInSync));
}

TEST_F(RelayTest, NothingIsSettledUntilTheSchemeIsTakenOver) {
    FakeParent parent(kGuid);
    WriteIni("Relay", parent.ChildIni("relay"));
    failures_ = 2;
    ActiveModule<Relay> module;
    ASSERT_TRUE(Eventually(IsInSync));
    ExpectValues(RelayValues(), {"SchemeSettled=true"});
    EXPECT_EQ(validations_, 3);
    EXPECT_EQ(unsettled_, 3);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "cannot be taken over, error 18"), 1);
}

TEST_F(RelayTest, AParentThatCannotBeUsedIsOutOfSyncAndLoggedOnce) {
    FakeParent parent(kGuid);
    WriteIni("Relay", parent.ChildIni("relay"));
    ActiveModule<Relay> module;
    const std::tuple<const char*, std::string, unsigned int> cases[] = {
        {"it refuses the agent name", kGuid, 401},
        {"its answer is error 23", kGuid, 500},
        {"malformed", "AB'D", 200},
        {"this device itself", kOurGuid, 200}};
    for (const auto& [logged, guid, status] : cases) {
        SCOPED_TRACE(logged);
        ASSERT_TRUE(Eventually(IsInSync));
        parent.SetGuid(guid);
        parent.status = status;
        ASSERT_TRUE(Eventually([] { return !IsInSync(); }));
        ExpectValues(RelayValues(), {"ParentGuid=" + kGuid});
        const std::size_t calls = parent.GetCallCount();
        ASSERT_TRUE(Eventually([&] { return parent.GetCallCount() >= calls + 2; }));
        EXPECT_EQ(log_->Count(KelDebugLevel::Warning, logged), 1);
        parent.SetGuid(kGuid);
        parent.status = 200;
    }
    ASSERT_TRUE(Eventually([this] { return validations_ == 5; })) << "at first and after each way back";
}

TEST_F(RelayTest, AnotherParentIsFollowedUnlessItIsALoop) {
    FakeParent first(kGuid), second(kOtherGuid);
    std::atomic<int> changes = 0, former = 0;
    FakeAction("TestChange ()", [&](KelContainer*) { return ++changes, 0U; });
    FakeAction("TestInSync ()",
               [&, place = "127.0.1.1:" + std::to_string(first.Port())](KelContainer* values) {
                   return former += values->GetString("FormerParent") == place ? 1 : 0, 0U;
               });
    CallbackDbRegisterAction("RelayCallbackParentChange", "TestChange ()", "", 0);
    WriteIni("Relay", first.ChildIni("relay"));
    const auto set = [](const FakeParent& parent, unsigned int result) {
        KelContainer call = Values({"ParentName=127.0.1.1", "ParentPort=" + std::to_string(parent.Port())});
        EXPECT_EQ(Call("RelaySetParent", call), result);
        return call;
    };
    const auto isParent = [](const FakeParent& parent) {
        return IsInSync() && RelayValues().GetInt32("ParentPort") == parent.Port();
    };
    {
        const ActiveModule<Relay> module;
        ASSERT_TRUE(Eventually(IsInSync));
        KelContainer foreign = From(Values({"ParentName=127.0.1.1", "ParentPort=1610"}), "127.0.1.9");
        EXPECT_EQ(Call("RelaySetParent", foreign), kKelErrorNotAvailable);
        second.isBelow = true;
        EXPECT_NE(set(second, kKelErrorBadInput).GetString("Message").find("below this device"),
                  std::string::npos);
        WriteIni("Relay", second.ChildIni("relay"));  // the file is not refused, but not followed
        ASSERT_TRUE(Eventually(
            [this] { return log_->Count(KelDebugLevel::Warning, "the parent stays as it is") == 1; }));
        EXPECT_TRUE(isParent(first));
        second.isBelow = false;
        ASSERT_TRUE(Eventually([&] { return isParent(second); }));
        ExpectValues(set(first, 0), {"ParentSync=true", "ParentProblem="});
        second.status = 401;
        ExpectValues(set(second, 0), {"ParentSync=false"});
        EXPECT_TRUE(Eventually([&] { return changes == 3; }));
        EXPECT_EQ(former, 1);
        EXPECT_NE(
            TempFolder::Read(root_ / "config/Relay.ini").find("ParentPort=" + std::to_string(second.Port())),
            std::string::npos);
    }
    second.status = 200;
    const ActiveModule<Relay> module;  // the parent that was in sync last was another one
    EXPECT_TRUE(Eventually([&] { return changes == 4 && former == 2; }));
    CallbackDbDeleteAction("RelayCallbackParentChange", "TestChange ()", "");
}

class PackageCopiesTest : public ModuleFixture {
  protected:
    void SetUp() override { WriteIni("Relay", "[Relay]\nRole=master\n"); }

    KelContainer Package(const std::string& label, const std::string& name, const std::string& content) {
        TempFolder::Write(root_ / "package", content);
        return Values({"FileLabel=" + label, "FileName=" + name, "FilePath=" + root_ / "package"});
    }
    std::string Copy(const std::string& below) { return root_ / ("data/Relay/Packages/" + below); }
};

TEST_F(PackageCopiesTest, AreKeptUntilTheirLabelIsCleared) {
    const std::string incoming = root_ / "data/Relay/Incoming";
    TempFolder::Write(incoming + "/.kel-stale", "left by a kill");
    RunningModule<Relay> module;
    for (const char* content : {"one", "two"}) {
        KelContainer package = Package("tools", "a b.zip", content);
        ASSERT_EQ(Call("RelayReceiveFile", package), 0U);
        EXPECT_EQ(package.GetString("FilePath"), Copy("tools/a b.zip"));
        EXPECT_EQ(TempFolder::Read(Copy("tools/a b.zip")), content);
    }
    ASSERT_EQ(Call("RelayReceiveFile", Package("other", "b", "three")), 0U);
    ASSERT_EQ(Call("RelayReceiveFile", Package("tools", "c", "four")), 0U);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Call("RelayClearPackage", Package("tools", "c", "")), 0U);
        EXPECT_EQ(TempFolder::Read(Copy("tools/a b.zip")), "two");
        EXPECT_FALSE(std::filesystem::exists(Copy("tools/c")));
    }
    EXPECT_EQ(Call("RelayClearPackage", Package("tools", "..", "")), kKelErrorBadInput);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Call("RelayClearPackage", Package("tools", "", "")), 0U);
        EXPECT_FALSE(std::filesystem::exists(Copy("tools")));
    }
    EXPECT_EQ(TempFolder::Read(Copy("other/b")), "three");
    EXPECT_TRUE(std::filesystem::is_empty(incoming));
}

TEST_F(PackageCopiesTest, UnusableCallsAreRefused) {
    RunningModule<Relay> module;
    const KelContainer package = Package("tools", "name", "content");
    for (const char* bad :
         {"FileLabel=..", "FileLabel=", "FileName=a/b", "FileName=", "FilePath=", "FilePath=package"})
        EXPECT_EQ(Call("RelayReceiveFile", With(package, {bad})), kKelErrorBadInput) << bad;
    EXPECT_EQ(Call("RelayReceiveFile", With(package, {"FilePath=" + root_ / "absent"})),
              kKelErrorMissingContent);
    for (const char* action : {"RelayReceiveFile", "RelayClearPackage"})
        EXPECT_EQ(Call(action, From(package, "127.0.3.9")), kKelErrorNotAvailable) << action;
    EXPECT_EQ(Call("RelayClearPackage", Package("..", "", "")), kKelErrorBadInput);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Relay/Packages"));
}

/// A stop on the way of a call, with the GUID of the device.
KelContainer Stop(const std::string& guid, int port) {
    return Values({"PathName=127.0.1.1:" + std::to_string(port) + "/" + guid + "/02-00/127.0.1.1/255.0.0.0",
                   "Name=desk"});
}

TEST_F(RelayTest, CallsOfTheOperatorRunHereOrGoOnWithClearRefusals) {
    KelContainer seen;
    for (const KelCallers callers : {KelCallers::Operator, KelCallers::Child})
        ActionDbRegisterAction(
            {.signature = callers == KelCallers::Operator ? "Ask" : "Own",
             .purpose = "Serves a test.",
             .callers = callers},
            [&seen](KelContainer* container) {
                seen = *container;
                EXPECT_FALSE(ActionIsFromThisDevice(*container));
                *container = Values({"Message=not now"});
                return 7U;
            },
            "neighbours");
    std::atomic<unsigned int> status = 200;
    const TestHttpServer next([&status](const auto&) {
        auto answer = TestHttpServer::ActionResult(0, Values({"Result=5"}));
        answer.status = status;
        return answer;
    });
    FakeParent parent(kGuid);
    WriteIni("Relay", parent.ChildIni("relay"));
    ActiveModule<Relay> module;
    ASSERT_TRUE(Eventually(IsInSync));
    const KelContainer own =
        With(Values({"Action=Ask", "Operator=ann", "Master=127.0.9.1:80"}), "Way", Stop(kOurGuid, 1));
    const auto onwards = [&own](int port) {
        KelContainer call = own;
        call.SetContainer("Way", Stop(kOtherGuid, port), 1);
        return call;
    };
    KelContainer call = From(With(own, "Arguments", Values({"N=1"})), "127.0.1.1");
    ASSERT_EQ(Call("RelayCallDevice", call), 0U);
    ExpectValues(call, {"Result=7"});
    ExpectValues(call.GetContainer("Answer"), {"Message=not now"});
    const KelCallOrigin origin = CallOriginOf(seen);
    EXPECT_EQ(seen.GetString("N") + origin.operatorName + origin.master, "1ann127.0.9.1:80");
    call = onwards(next.Port());
    ASSERT_EQ(Call("RelayCallDevice", call), 0U);
    ExpectValues(call, {"Result=5"});
    call = With(own, {"Action=Own"});
    ASSERT_EQ(Call("RelayCallDevice", call), 0U);
    ExpectValues(call, {"Result=17"});

    status = 404;
    for (const auto& [refused, result, text] :
         {std::tuple(With(own, "Way", Stop(kOtherGuid, 1)), kKelErrorBadInput, "Another device than desk"),
          {With(own, {"Master="}), kKelErrorBadInput, "unusable"},
          {onwards(next.Port()), kKelErrorNotAvailable, "The version of desk"},
          {With(onwards(next.Port()), {"Seconds=1"}), kKelErrorUnreachable, "No time was left"},
          {onwards(1), kKelErrorUnreachable, "desk (127.0.1.1:1) does not answer"}}) {
        KelContainer answer = refused;
        EXPECT_EQ(Call("RelayCallDevice", answer), result) << text;
        EXPECT_THAT(answer.GetString("Message"), testing::HasSubstr(text));
    }
}

}  // namespace

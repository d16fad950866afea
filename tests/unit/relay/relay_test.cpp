#include "modules/relay/relay.h"

#include "fake_parent.h"
#include "kelcore/http/client.h"
#include "module_fixture.h"

namespace {

constexpr char kGuid[] = "ABCD0000-1111-2222-3333-444444444444";
constexpr char kOtherGuid[] = "EF010000-1111-2222-3333-444444444444";
constexpr char kOurGuid[] = "12340000-1111-2222-3333-444444444444";

class RelayTest : public ModuleFixture {
  protected:
    void SetUp() override {
        Configure("");
        FakeAction("IdentityGetGUID ()", [](KelContainer* container) {
            container->SetString("GUID", kOurGuid);
            return 0U;
        });
        FakeAction("IdentityValidateGUIDScheme ()", [this](KelContainer*) {
            // The new state must be readable by now: the handler reads it.
            if (Values().GetBool("ParentSync")) ++validations_;
            return 0U;
        });
    }
    void TearDown() override { HttpClientCloseIdleConnections(); }

    void WriteRelay(const std::string& role, int port) {
        WriteIni("Relay", "[Relay]\nRole=" + role + "\nParentName=127.0.0.1\nParentPort=" +
                              std::to_string(port) + "\nCheckInterval=1\nRetryInterval=1\n");
    }

    static KelContainer Values() { return Call("RelayGetValues").GetContainer("Values"); }

    std::atomic<int> validations_ = 0;
};

TEST_F(RelayTest, AMasterHasNoParent) {
    WriteIni("Relay", "[Relay]\nRole=Master\nParentName=\nParentPort=\n");
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    const KelContainer values = Values();
    EXPECT_TRUE(values.GetBool("IsEnabled"));
    EXPECT_EQ(values.GetString("Role"), "master");
    EXPECT_EQ(values.GetString("ParentName"), "");
    EXPECT_FALSE(values.GetBool("ParentSync"));
}

TEST_F(RelayTest, UnusableSettingsAreRefused) {
    for (const std::string settings :
         {"Role=", "Role=boss", "Role=master\nParentName=a\nParentPort=1", "Role=client\nParentName=a",
          "Role=client\nParentName=a\nParentPort=0", "Role=client\nParentName=a\nParentPort=65536",
          "Role=relay\nParentName=a b\nParentPort=80", "Role=relay\nParentName=a@b\nParentPort=80"}) {
        WriteIni("Relay", "[Relay]\n" + settings + "\n");
        RunningModule<Relay> module;
        EXPECT_FALSE(module.Initialise()) << settings;
    }
}

TEST_F(RelayTest, AnAnsweringParentIsInSyncAtOnce) {
    FakeParent parent(kGuid);
    WriteRelay("client", parent.Port());
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_FALSE(Values().GetBool("ParentSync"));
    module.Activate();
    ASSERT_TRUE(Eventually([] { return Values().GetBool("ParentSync"); }));
    const KelContainer values = Values();
    EXPECT_FALSE(values.GetBool("IsEnabled"));
    EXPECT_EQ(values.GetString("Role"), "client");
    EXPECT_EQ(values.GetString("ParentName"), "127.0.0.1");
    EXPECT_EQ(values.GetString("ParentIPAddress"), "127.0.0.1");
    EXPECT_EQ(values.GetString("ParentGuid"), kGuid);
    EXPECT_EQ(values.GetInt32("ParentPort"), parent.Port());
    EXPECT_EQ(parent.GetLastRequest().rfind("POST /Action/IdentityGetValues ", 0), 0U);
    EXPECT_TRUE(Eventually([this] { return validations_ == 1; }));
}

TEST_F(RelayTest, SchemeIsValidatedAgainWhenTheParentsGuidChanges) {
    FakeParent parent(kGuid);
    WriteRelay("relay", parent.Port());
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    ASSERT_TRUE(Eventually([&] { return parent.GetCallCount() >= 2; }));
    EXPECT_EQ(validations_, 1) << "a steady parent was validated more than once";
    parent.SetGuid(kOtherGuid);
    EXPECT_TRUE(Eventually([] { return Values().GetString("ParentGuid") == kOtherGuid; }));
    EXPECT_TRUE(Eventually([this] { return validations_ == 2; }));
}

TEST_F(RelayTest, AParentWithoutItsOwnPlaceIsWaitedForOnlyTheFirstTime) {
    FakeParent parent(kGuid);
    parent.SetSettled(false);
    WriteRelay("relay", parent.Port());
    {
        RunningModule<Relay> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        ASSERT_TRUE(Eventually(
            [this] { return log_->Count(KelDebugLevel::Warning, "not found its own parent") == 1; }));
        EXPECT_FALSE(Values().GetBool("ParentSync"));
        EXPECT_FALSE(Values().GetBool("SchemeSettled"));
        parent.SetSettled(true);
        ASSERT_TRUE(Eventually([] { return Values().GetBool("SchemeSettled"); }));
    }
    // A parent that starts again and has lost sight of those above still serves its children.
    parent.SetSettled(false);
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_TRUE(Values().GetBool("SchemeSettled"));
    module.Activate();
    EXPECT_TRUE(Eventually([] { return Values().GetBool("ParentSync"); }));
}

TEST_F(RelayTest, AParentThatCannotBeUsedIsOutOfSyncAndLoggedOnce) {
    struct Case {
        const char* name;
        std::string guid;
        int status;
    };
    for (const Case& bad :
         {Case{"it refuses the agent name", kGuid, 401}, Case{"its answer is error 23", kGuid, 500},
          Case{"malformed", "AB'D", 200}, Case{"this device itself", kOurGuid, 200}}) {
        FakeParent parent(kGuid);
        WriteRelay("relay", parent.Port());
        RunningModule<Relay> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        ASSERT_TRUE(Eventually([] { return Values().GetBool("ParentSync"); })) << bad.name;
        parent.SetGuid(bad.guid);
        parent.SetStatus(bad.status);
        ASSERT_TRUE(Eventually([] { return !Values().GetBool("ParentSync"); })) << bad.name;
        EXPECT_EQ(Values().GetString("ParentGuid"), kGuid) << bad.name;
        const int calls = parent.GetCallCount();
        ASSERT_TRUE(Eventually([&] { return parent.GetCallCount() >= calls + 2; })) << bad.name;
        EXPECT_EQ(log_->Count(KelDebugLevel::Warning, bad.name), 1) << bad.name;
        parent.SetGuid(kGuid);
        parent.SetStatus(200);
        EXPECT_TRUE(Eventually([] { return Values().GetBool("ParentSync"); })) << bad.name;
    }
    EXPECT_EQ(validations_, 8);
}

TEST_F(RelayTest, AParentThatIsNotThereIsTriedAgain) {
    std::uint16_t port = 0;
    {
        const FakeParent gone(kGuid);
        port = gone.Port();
    }
    WriteRelay("client", port);
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_TRUE(Eventually([this] { return log_->Count(KelDebugLevel::Warning, "cannot be reached") == 1; }));
    EXPECT_FALSE(Values().GetBool("ParentSync"));
    module.Cleanup();
    EXPECT_EQ(Values().GetString("Role"), "client") << "the action must answer after the cleanup";
}

}  // namespace

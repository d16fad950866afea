#include "modules/identity/identity.h"

#include "kelcore/error_codes.h"
#include "module_fixture.h"
#include "modules/identity/guid.h"

namespace {

constexpr char kParentGuid[] = "ABCD0000-1111-2222-3333-444444444444";

class IdentityTest : public ModuleFixture {
  protected:
    std::string GuidFile() { return root_ / "data/Identity/guid"; }

    void KeepOnDisk(const std::string& text) {
        std::filesystem::create_directories(root_ / "data/Identity");
        TempFolder::Write(GuidFile(), text);
    }

    static void FakeParent(const std::string& guid, bool isInSync) {
        FakeAction("RelayGetValues ()", [guid, isInSync](KelContainer* container) {
            KelContainer values;
            values.SetString("ParentGuid", guid);
            values.SetBool("ParentSync", isInSync);
            container->SetContainer("Values", values);
            return 0U;
        });
    }

    void CollectEvent(const std::string& event) {
        FakeAction("CollectEvent (string Any)", [this](KelContainer* container) {
            events_.push_back(*container);
            return 0U;
        });
        CallbackDbRegisterAction(event, "CollectEvent (string Any)", {}, 0);
        subscription_ = event;
    }
    void TearDown() override { CallbackDbDeleteAction(subscription_, "CollectEvent (string Any)", {}); }

    std::string subscription_;
    std::vector<KelContainer> events_;
};

TEST(Guid, OnlyTheUpperCaseFormIsAGuid) {
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(IsGuid(MakeGuid()));
    EXPECT_NE(MakeGuid(), MakeGuid());
    for (const KelString text :
         {"", "ABCD0000-1111-2222-3333-44444444444", "abcd0000-1111-2222-3333-444444444444",
          "ABCD0000-1111-2222-3333-4444444444444", "ABCD0000111122223333444444444444----",
          "ABCD0000-1111-2222-3333-44444444444'", "ABCD0000-1111-2222-3333-44444444444\n"}) {
        EXPECT_FALSE(IsGuid(text)) << text;
    }
}

TEST_F(IdentityTest, GuidIsMadeOnceAndKept) {
    KelString first;
    {
        RunningModule<Identity> module;
        ASSERT_TRUE(module.Initialise());
        first = Call("IdentityGetGUID").GetString("GUID");
        EXPECT_TRUE(IsGuid(first));
    }
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_EQ(Call("IdentityGetGUID").GetString("GUID"), first);
    EXPECT_EQ(Call("IdentityGetValues").GetContainer("Values").GetString("GUID"), first);
}

TEST_F(IdentityTest, DamagedGuidFileGivesANewGuidAndIsKeptAside) {
    for (const std::string& damage :
         {std::string(), std::string("ABCD0000-1111"), std::string(5000, 'A'), std::string(36, '\0')}) {
        KeepOnDisk(damage);
        RunningModule<Identity> module;
        ASSERT_TRUE(module.Initialise());
        const KelString guid = Call("IdentityGetGUID").GetString("GUID");
        EXPECT_TRUE(IsGuid(guid));
        EXPECT_EQ(TempFolder::Read(GuidFile()), guid + "\n");
        EXPECT_EQ(TempFolder::Read(GuidFile() + ".damaged"), damage);
    }
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "held no GUID"), 4);
}

TEST_F(IdentityTest, AGuidThatCannotBeKeptStopsTheModule) {
    TempFolder::Write(root_ / "data/Identity", "a file where the folder should be");
    RunningModule<Identity> module;
    EXPECT_FALSE(module.Initialise());
}

TEST_F(IdentityTest, LoopbackAgentDescribesItself) {
    WriteIni("Identity", "[Identity]\nHostName=north.example\nPreferIPAddresses=true\n");
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    const KelContainer answer = Call("IdentityGetValues");
    const KelContainer& values = answer.GetContainer("Values");
    EXPECT_EQ(values.GetString("HostName"), "north.example");
    EXPECT_EQ(values.GetString("IPAddress"), "127.0.3.1");
    EXPECT_EQ(values.GetString("MACAddress"), "02-00-7F-00-03-01");
    EXPECT_EQ(values.GetString("NetworkMask"), "255.0.0.0");
    EXPECT_TRUE(values.GetBool("PreferIPAddresses"));
    EXPECT_EQ(Call("IdentityGetHostname").GetString("HostName"), "north.example");
    EXPECT_EQ(Call("AgentGetIPAddress").GetString("IPAddress"), "127.0.3.1");
}

TEST_F(IdentityTest, UnusableSettingsAreRefused) {
    for (const std::string line : {"HostName=a'b", "HostName=a/b", "IPAddress=10.0.0",
                                   "MACAddress=02:00:7F:00:03:01", "NetworkMask=none"}) {
        WriteIni("Identity", "[Identity]\n" + line + "\n");
        RunningModule<Identity> module;
        EXPECT_FALSE(module.Initialise()) << line;
    }
}

TEST_F(IdentityTest, SchemeOfTheParentIsTakenOverOnceAndKept) {
    KeepOnDisk("12345678-1111-2222-3333-444444444444\n");
    CollectEvent("IdentityCallbackGUIDChange");
    FakeParent(kParentGuid, true);
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    Call("IdentityValidateGUIDScheme");
    Call("IdentityValidateGUIDScheme");
    EXPECT_EQ(Call("IdentityGetGUID").GetString("GUID"), "ABCD5678-1111-2222-3333-444444444444");
    EXPECT_EQ(TempFolder::Read(GuidFile()), "ABCD5678-1111-2222-3333-444444444444\n");
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_EQ(events_[0].GetString("GUID"), "ABCD5678-1111-2222-3333-444444444444");
    EXPECT_EQ(events_[0].GetString("OldGUID"), "12345678-1111-2222-3333-444444444444");
}

TEST_F(IdentityTest, SchemeStaysWithoutAParentInSync) {
    struct Case {
        const char* guid;
        bool isInSync;
    };
    KeepOnDisk("12345678-1111-2222-3333-444444444444\n");
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    Call("IdentityValidateGUIDScheme");  // no relay module at all
    for (const Case& parent : {Case{kParentGuid, false}, Case{"", true}, Case{"AB'D0000", true}}) {
        FakeParent(parent.guid, parent.isInSync);
        Call("IdentityValidateGUIDScheme");
        EXPECT_EQ(Call("IdentityGetGUID").GetString("GUID"), "12345678-1111-2222-3333-444444444444")
            << parent.guid;
    }
}

TEST_F(IdentityTest, ASchemeThatCannotBeKeptIsNotTakenOver) {
    KeepOnDisk("12345678-1111-2222-3333-444444444444\n");
    FakeParent(kParentGuid, true);
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    std::filesystem::remove_all(root_ / "data/Identity");
    KelContainer none;
    EXPECT_EQ(Call("IdentityValidateGUIDScheme", none), kKelErrorInternal);
    EXPECT_EQ(Call("IdentityGetGUID").GetString("GUID"), "12345678-1111-2222-3333-444444444444");
}

TEST_F(IdentityTest, ANewAddressIsReportedOnce) {
    CollectEvent("IdentityCallbackIPChange");
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    module->CheckAddress();
    EXPECT_TRUE(events_.empty());
    WriteIni("Identity", "[Identity]\nIPAddress=10.1.2.3\n");
    module->CheckAddress();
    module->CheckAddress();
    WriteIni("Identity", "[Identity]\nIPAddress=nonsense\n");
    module->CheckAddress();
    module->CheckAddress();
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "nonsense"), 1);
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_EQ(events_[0].GetString("NewIPAddress"), "10.1.2.3");
    EXPECT_EQ(events_[0].GetString("OldIPAddress"), "127.0.3.1");
    EXPECT_EQ(Call("AgentGetIPAddress").GetString("IPAddress"), "10.1.2.3");
}

TEST_F(IdentityTest, TheWatcherNoticesANewAddress) {
    WriteIni("Identity", "[Identity]\nCheckInterval=1\n");
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    WriteIni("Identity", "[Identity]\nCheckInterval=1\nIPAddress=10.1.2.3\n");
    EXPECT_TRUE(Eventually([] { return Call("AgentGetIPAddress").GetString("IPAddress") == "10.1.2.3"; }));
}

TEST(NetworkInterfaces, TheReachableOneIsChosen) {
    const auto address = [](const char* text) { return *IpAddress::Parse(text); };
    const KelVector<NetworkInterface> interfaces = {
        {"lo", address("127.0.0.1"), address("255.0.0.0"), "", true},
        {"zero", address("169.254.3.4"), address("255.255.0.0"), "00-00-00-00-00-01", false},
        {"one", address("10.0.0.5"), address("255.255.255.0"), "00-00-00-00-00-02", false},
        {"two", address("10.0.0.6"), address("255.255.255.0"), "00-00-00-00-00-03", false}};
    EXPECT_EQ(FirstReachableInterface(interfaces)->name, "one");
    EXPECT_EQ(FindInterface(interfaces, address("10.0.0.6"))->name, "two");
    EXPECT_EQ(FindInterface(interfaces, address("10.0.0.7"))->name, "one");
    EXPECT_EQ(FindInterface(interfaces, address("127.0.1.9"))->name, "lo");
    EXPECT_FALSE(FindInterface(interfaces, address("192.0.2.1")));
    EXPECT_FALSE(FirstReachableInterface({interfaces[0], interfaces[1]}));

    const auto values = DetermineDeviceValues(IniFile(), {}, interfaces);
    ASSERT_TRUE(values);
    EXPECT_EQ(values->ipAddress, "10.0.0.5");
    EXPECT_EQ(values->macAddress, "00-00-00-00-00-02");
    EXPECT_EQ(values->networkMask, "255.255.255.0");
}

}  // namespace

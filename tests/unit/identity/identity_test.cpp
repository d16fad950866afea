#include "modules/identity/identity.h"

#include <set>

#include "kelcore/device_name.h"
#include "module_fixture.h"

namespace {

const std::string kParentGuid = "ABCD0000-1111-2222-3333-444444444444";
const std::string kOurGuid = "12345678-1111-2222-3333-444444444444";

class IdentityTest : public ModuleFixture {
  protected:
    std::string GuidFile() { return root_ / "data/Identity/guid"; }

    void KeepOnDisk(const std::string& text) { TempFolder::Write(GuidFile(), text); }
    static void FakeParent(const Texts& values) { FakeValues("RelayGetValues ()", values); }
    void CollectEvents(const std::string& event) {
        Subscribe(event, [this](KelContainer* container) {
            events_.push_back(*container);
            return 0U;
        });
    }
    static std::string CurrentGuid() { return Call("IdentityGetGUID").GetString("GUID"); }

    std::vector<KelContainer> events_;
};

TEST_F(IdentityTest, AMissingOrDamagedGuidGivesANewOneThatStays) {
    std::set<std::string> made;
    for (const std::string& damage : {std::string("missing"), std::string(), std::string("ABCD0000-1111"),
                                      std::string(5000, 'A'), std::string(36, '\0')}) {
        if (damage != "missing") KeepOnDisk(damage);
        std::string guid;
        {
            RunningModule<Identity> module;
            guid = CurrentGuid();
            EXPECT_TRUE(IsGuid(guid) && made.insert(guid).second);
            const std::string kept = damage == "missing" ? "" : damage;
            EXPECT_EQ(TempFolder::Read(GuidFile() + ".damaged"), kept);
        }
        RunningModule<Identity> module;
        EXPECT_EQ(CurrentGuid(), guid);
    }
}

TEST_F(IdentityTest, UnusableSettingsAndAGuidThatCannotBeKeptStopTheModule) {
    for (const std::string line : {"HostName=a'b", "HostName=a/b", "IPAddress=10.0.0",
                                   "MACAddress=02:00:7F:00:03:01", "NetworkMask=none"}) {
        SCOPED_TRACE(line);
        WriteIni("Identity", "[Identity]\n" + line + "\n");
        RunningModule<Identity> module(Start::Fails);
    }
    WriteIni("Identity", "[Identity]\n");
    std::filesystem::remove_all(root_ / "data/Identity");
    TempFolder::Write(root_ / "data/Identity", "a file where the folder should be");
    RunningModule<Identity> module(Start::Fails);
}

TEST_F(IdentityTest, SchemeOfTheParentIsTakenOverOnceAndKept) {
    KeepOnDisk(kOurGuid + "\n");
    CollectEvents("IdentityCallbackGUIDChange");
    FakeParent({"ParentGuid=" + kParentGuid, "ParentSync=false"});  // it waits for us
    RunningModule<Identity> module;
    Call("IdentityValidateGUIDScheme");
    Call("IdentityValidateGUIDScheme");
    EXPECT_EQ(CurrentGuid(), "ABCD5678-1111-2222-3333-444444444444");
    EXPECT_EQ(TempFolder::Read(GuidFile()), "ABCD5678-1111-2222-3333-444444444444\n");
    ASSERT_EQ(events_.size(), 1U);
    ExpectValues(events_[0], {"GUID=ABCD5678-1111-2222-3333-444444444444", "OldGUID=" + kOurGuid});
}

TEST_F(IdentityTest, TheSchemeStaysWithoutAKnownParentAndWhenItCannotBeKept) {
    KeepOnDisk(kOurGuid + "\n");
    RunningModule<Identity> module;
    Call("IdentityValidateGUIDScheme");  // no relay module at all
    for (const Texts& parent : {Texts{"ParentGuid="}, Texts{"ParentGuid=AB'D0000"}}) {
        FakeParent(parent);
        Call("IdentityValidateGUIDScheme");
        EXPECT_EQ(CurrentGuid(), kOurGuid) << parent[0];
    }
    FakeParent({"ParentGuid=" + kParentGuid});
    std::filesystem::remove_all(root_ / "data/Identity");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Call("IdentityValidateGUIDScheme", KelContainer()), kKelErrorInternal);
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "cannot be kept"), 1);
    EXPECT_EQ(CurrentGuid(), kOurGuid);
}

TEST_F(IdentityTest, ANewAddressIsReportedOnce) {
    CollectEvents("IdentityCallbackIPChange");
    RunningModule<Identity> module;
    for (const char* settings : {"", "IPAddress=10.1.2.3", "IPAddress=10.1.2.3", "IPAddress=nonsense"}) {
        WriteIni("Identity", std::string("[Identity]\n") + settings + "\n");
        module->CheckAddress();
    }
    module->CheckAddress();
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "nonsense"), 1);
    ASSERT_EQ(events_.size(), 1U);
    ExpectValues(events_[0], {"NewIPAddress=10.1.2.3", "OldIPAddress=127.0.3.1"});
    ExpectValues(Call("AgentGetIPAddress"), {"IPAddress=10.1.2.3"});
    EXPECT_TRUE(module->ReportIdentity(1800000000)) << "waits for the neighbours that it asks";
}

TEST(NetworkInterfaces, TheReachableOneIsChosen) {
    const auto address = [](const char* text) { return *IpAddress::Parse(text); };
    const KelVector<NetworkInterface> interfaces = {
        {"lo", address("127.0.0.1"), address("255.0.0.0"), "", true},
        {"zero", address("169.254.3.4"), address("255.255.0.0"), "00-00-00-00-00-01", false},
        {"one", address("10.0.0.5"), address("255.255.255.0"), "00-00-00-00-00-02", false},
        {"two", address("10.0.0.6"), address("255.255.255.0"), "00-00-00-00-00-03", false}};
    EXPECT_EQ(FindInterface(interfaces, address("10.0.0.6"))->name, "two");
    EXPECT_EQ(FindInterface(interfaces, address("10.0.0.7"))->name, "one");
    EXPECT_EQ(FindInterface(interfaces, address("127.0.1.9"))->name, "lo");
    EXPECT_FALSE(FindInterface(interfaces, address("192.0.2.1")));
    EXPECT_FALSE(FirstReachableInterface({interfaces[0], interfaces[1]}));

    const auto values = DetermineDeviceValues(IniFile(), {}, interfaces);
    ASSERT_TRUE(values);
    EXPECT_EQ(values->ipAddress + values->macAddress + values->networkMask,
              "10.0.0.500-00-00-00-00-02255.255.255.0");
}

const std::string kGuid = "ABCD5678-1111-2222-3333-444444444444";
const std::string kOtherScheme = "EF010000-1111-2222-3333-444444444444";
constexpr std::int64_t kNow = 1800000000;

class IdentityReportTest : public ModuleFixture {
  protected:
    void SetUp() override {
        TempFolder::Write(root_ / "data/Identity/guid", kGuid + "\n");
        WriteIni("Identity", "[Identity]\nHostName=north.example\nCheckInterval=1\n");
        FakeRelay("client", kParentGuid, true);
        FakeValues("HttpProtocolGetParams ()", {"Port=1610"});
        FakeFileStore();
    }

    static void FakeRelay(const std::string& role, const std::string& parentGuid, bool isInSync) {
        FakeValues("RelayGetValues ()", {"Role=" + role, "ParentGuid=" + parentGuid,
                                         std::string("ParentSync=") + (isInSync ? "true" : "false")});
    }
    std::string Outgoing() { return root_ / "data/Identity/Outgoing"; }
};

TEST_F(IdentityReportTest, TheFileGivesTheAddressThatIsPreferred) {
    for (const auto& [preference, host] : {std::pair("false", "north.example"), {"true", "127.0.3.1"}}) {
        const std::string prefers = std::string("PreferIPAddresses=") + preference;
        WriteIni("Identity", "[Identity]\nHostName=north.example\n" + prefers + "\n");
        RunningModule<Identity> module;
        EXPECT_FALSE(module->ReportIdentity(kNow));
        ASSERT_GT(OfferCount(), 0U);
        ExpectValues(Offers().back(), {"FileType=IdentityIdentity", "FileName=" + kGuid + ".xml"});
        const std::string url = std::string(host) + ":1610/" + kGuid;
        ExpectValues(Contents().back(), {"HostName=north.example", prefers, "DeviceUrl=" + url,
                                         "PathName=" + url + "/02-00-7F-00-03-01/127.0.3.1/255.0.0.0"});
    }
}

TEST_F(IdentityReportTest, NothingIsSentBeforeTheGuidIsSettled) {
    const std::tuple<const char*, std::string, bool, bool> cases[] = {
        {"client", "", false, false},          {"relay", kParentGuid, false, false},
        {"client", kOtherScheme, true, false}, {"client", "nonsense", true, false},
        {"relay", kParentGuid, true, true},    {"master", "", false, true}};
    for (const auto& [role, parentGuid, isInSync, isSent] : cases) {
        RunningModule<Identity> module;
        FakeRelay(role, parentGuid, isInSync);
        const std::size_t before = OfferCount();
        EXPECT_EQ(module->ReportIdentity(kNow), !isSent) << role << parentGuid;
        EXPECT_EQ(OfferCount() - before, isSent ? 1U : 0U) << role << parentGuid;
    }
    ExpectValues(Contents().back(), {"ParentGuid="});
}

TEST_F(IdentityReportTest, ItIsSentAgainOnChangeAndDaily) {
    RunningModule<Identity> module;
    const auto sentAt = [&](std::int64_t time) {
        const std::size_t before = OfferCount();
        module->CheckAddress();
        module->ReportIdentity(time);
        return OfferCount() - before == 1;
    };
    EXPECT_TRUE(sentAt(kNow));
    EXPECT_FALSE(sentAt(kNow + 1));
    EXPECT_FALSE(sentAt(kNow + 86399));
    EXPECT_TRUE(sentAt(kNow + 86400)) << "daily";
    EXPECT_TRUE(sentAt(kNow)) << "the clock was set back";
    for (const char* changed : {"HostName=south.example", "HostName=south.example\nIPAddress=10.1.2.3"}) {
        WriteIni("Identity", std::string("[Identity]\n") + changed + "\n");
        EXPECT_TRUE(sentAt(kNow + 1)) << changed;
    }
    for (const std::string& parent : {kParentGuid, std::string("ABCD0000-1111-2222-3333-555555555555")}) {
        FakeRelay("relay", parent, true);
        EXPECT_TRUE(sentAt(kNow + 3)) << "another role, then another parent";
    }
    FakeRelay("relay", kOtherScheme, true);
    EXPECT_FALSE(sentAt(kNow + 5));
    Call("IdentityValidateGUIDScheme");
    EXPECT_TRUE(sentAt(kNow + 6)) << "GUID";
    EXPECT_EQ(Offers().back().GetString("FileName"), "EF015678-1111-2222-3333-444444444444.xml");
    EXPECT_FALSE(sentAt(kNow + 7));
}

TEST_F(IdentityReportTest, ARefusedFileIsSentLaterAndLeavesNothingBehind) {
    TempFolder::Write(Outgoing() + "/.kel-stale", "left by a crash");
    RunningModule<Identity> module;
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    SetStoreResult(1);
    module->ReportIdentity(kNow);
    module->ReportIdentity(kNow + 1);
    EXPECT_EQ(OfferCalls(), 2);
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "did not take the identity file, error 1"), 1);
    SetStoreResult(0);
    module->ReportIdentity(kNow + 2);
    EXPECT_EQ(OfferCount(), 1U);
}

TEST_F(IdentityReportTest, TheWatcherNoticesANewAddressAndAParentInSync) {
    FakeRelay("client", kOtherScheme, false);
    ActiveModule<Identity> module;
    WriteIni("Identity", "[Identity]\nCheckInterval=1\nIPAddress=10.1.2.3\n");
    EXPECT_TRUE(Eventually([] { return Call("AgentGetIPAddress").GetString("IPAddress") == "10.1.2.3"; }));
    FakeRelay("client", kOtherScheme, true);
    Call("IdentityValidateGUIDScheme");
    EXPECT_TRUE(Eventually([this] { return OfferCount() == 1; }));
}

TEST_F(IdentityTest, IdentityIsSentAgainToANewConsoleOnly) {
    FakeValues("RelayGetValues ()", {"Role=master"});
    FakeValues("HttpProtocolGetParams ()", {"Port=1610"});
    FakeFileStore();
    WriteIni("Identity", "[Identity]\nIPAddress=127.0.3.1\n");
    RunningModule<Identity> module;
    std::size_t sent = 0;
    for (const auto& [id, result, reports] : {std::tuple("1111222233334444", 0U, 1U),
                                              {"1111222233334444", 0U, 0U},
                                              {"5555666677778888", 0U, 1U},
                                              {"", 1U, 0U},
                                              {"'; DROP TABLE --", 1U, 0U}}) {
        EXPECT_EQ(Call("IdentitySetConsole", Values({std::string("ConsoleId=") + id})), result);
        module->ReportIdentity(1800000000);
        EXPECT_EQ(OfferCount() - sent, reports) << id;
        sent = OfferCount();
    }
    EXPECT_EQ(Contents().back().GetString("ConsoleId"), "5555666677778888");
    EXPECT_EQ(Call("IdentityGetValues").GetContainer("Values").GetString("ConsoleId"), "5555666677778888");
    EXPECT_EQ(Call("IdentitySetConsole", From(Values({"ConsoleId=9999000011112222"}), "127.0.3.2")),
              kKelErrorNotAvailable);
}

}  // namespace

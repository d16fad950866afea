#include <ctime>

#include "console_fixture.h"
#include "kel/format.h"

namespace {

const std::string kDesk = "ABCD0000-0000-0000-0000-00000000000A";
constexpr unsigned int kNotReady = 44001;
constexpr unsigned int kStaysHere = 44003;

class ConsoleUpstreamTest : public ConsoleTest {
  protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        module_.emplace();
    }
    /// The identity file of a client.
    static KelContainer Identity(const std::string& guid, const std::string& name, std::int64_t time,
                                 const std::string& parent = kMaster) {
        const std::string url = "10.0.0.9:1610/" + guid;
        return Values({"GUID=" + guid, "HostName=" + name, "Role=client", "Port=1610", "ParentGuid=" + parent,
                       "DeviceUrl=" + url, "PathName=" + url + "/02-00-0A-00-00-09/10.0.0.9/255.0.0.0",
                       "Time=" + std::to_string(time)});
    }
    /// That of `guid` on what was offered to the store first, or at another place.
    KelContainer Receipt(const std::string& guid, const std::string& status, int time,
                         std::size_t offer = 0) const {
        KelContainer receipt = Values(
            {"GUID=" + guid, "Status=" + status, "Message=it's " + status, "Time=" + std::to_string(time)});
        for (const char* name : {"FileType", "FileLabel", "FileName", "FileChecksum"})
            receipt.SetString(name, Offers().at(offer).GetString(name));
        return receipt;
    }

    /// What the file store announces.
    KelContainer Arrived(const std::string& type, const std::string& content,
                         const std::string& source = {}) {
        TempFolder::Write(root_ / "arrived.xml", content);
        return Values({"FileType=" + type, "FileLabel=label", "SourceDevice=" + source,
                       "FilePath=" + root_ / "arrived.xml"});
    }
    unsigned int Take(const std::string& type, const KelContainer& content, const std::string& source = {}) {
        return Trigger("FileStoreCallbackCopyUpstream", Arrived(type, content.SaveToXML(), source));
    }
    unsigned int TakeIdentity(const KelContainer& identity) {
        return Take("IdentityIdentity", identity, identity.GetString("DeviceUrl"));
    }
    unsigned int TakeReceipt(const KelContainer& receipt, const std::string& source = {}) {
        return Take("DeliveryReceipt", receipt, source);
    }

    /// What the console says of one publication.
    static KelContainer Listed(const KelContainer& published) {
        KelContainer publication = Values({"PublicationId=" + published.GetString("PublicationId")});
        EXPECT_EQ(Call("ConsoleListPublications", publication), 0U);
        return publication;
    }
    /// "delivered/failed/pending of targets"
    static std::string CountsNow(const KelContainer& published) {
        const KelContainer values = Listed(published).GetContainer("Values");
        return values.GetString("Delivered") + "/" + values.GetString("Failed") + "/" +
               values.GetString("Pending") + " of " + values.GetString("Targets");
    }
    /// The line of a device in the ini file.
    static std::string Line(const std::string& guid, const std::string& parentRoleAndName) {
        return guid + "=127.0.3.4:1610/" + guid + "/0/127.0.3.4/255.0.0.0 " + parentRoleAndName + "\n";
    }

    const std::int64_t now_ = std::time(nullptr);
    std::optional<RunningModule<Console>> module_;
};

TEST_F(ConsoleUpstreamTest, DevicesAppearAndChangeByTheirIdentityFiles) {
    EXPECT_EQ(TakeIdentity(Identity(kDesk, "desk-9", now_ - 100)), kStaysHere);
    const KelContainer device = DeviceNamed(kDesk);
    ExpectValues(device, {"Name=desk-9", "Role=client", "Address=10.0.0.9:1610", "Parent=" + kMaster});
    EXPECT_GE(device.GetInt64("LastSeen"), now_);
    EXPECT_GE(device.GetInt64("FirstSeen"), now_);
    module_.reset();
    module_.emplace();
    EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), "desk-9") << "after a restart";
    // Older reports change nothing, but a wrong clock must not outlast its correction.
    for (const auto& [name, time, known] : {std::tuple{"older", now_ - 200, "desk-9"},
                                            {"future", now_ + 1000000, "future"},
                                            {"corrected", std::time(nullptr) + 1, "corrected"}}) {
        TakeIdentity(Identity(kDesk, name, time));
        EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), known);
    }
    EXPECT_EQ(Publish(Request("corrected")).GetInt32("Targets"), 1);
}

TEST_F(ConsoleUpstreamTest, AReportWinsOverTheIniFileAndTheMasterStaysFirst) {
    TakeIdentity(Identity(kClient, "moved", now_));
    for (const std::string& guid : {kMaster, kDesk})  // the second is an impostor
        TakeIdentity(With(Identity(kMaster, "boss", now_), {"GUID=" + guid, "Role=master", "ParentGuid="}));
    const KelContainer devices = Call("ConsoleListDevices");
    EXPECT_EQ(devices.Count("Values"), 3U);
    EXPECT_EQ(devices.GetContainer("Values").GetString("PathName"), kMasterPath);
    EXPECT_GE(devices.GetContainer("Values").GetInt64("LastSeen"), now_);
    ExpectValues(DeviceNamed(kClient), {"Name=moved", "Parent=" + kMaster});
    ExpectValues(DeviceNamed(kNorth), {"Name=north"});
}

TEST_F(ConsoleUpstreamTest, UnusableReportsChangeNothing) {
    const std::string other = "ABCD0000-0000-0000-0000-00000000000B";
    const KelContainer good = Identity(kDesk, "desk-9", 1800000000);
    int refused = 0;
    const auto isIgnored = [&] { return log_->Count(KelDebugLevel::Warning, "is ignored") == ++refused; };
    for (const std::string& bad :
         Texts{"GUID=", "GUID=abcd0000-0000-0000-0000-00000000000a", "GUID=" + other,
               "HostName=", "HostName=a'b", "HostName=a\nb", "HostName=" + std::string(254, 'a'), "Role=boss",
               "Role=master", "Port=0", "Port=1611", "ParentGuid=", "ParentGuid=" + kDesk, "ParentGuid=x",
               "PathName=", "PathName=" + kNorthPath, "DeviceUrl=10.0.0.8:1610/" + kDesk, "Time=0",
               "Time=soon"}) {
        EXPECT_EQ(Take("IdentityIdentity", With(good, {bad})), kStaysHere) << bad;
        EXPECT_TRUE(isIgnored()) << bad;
    }
    EXPECT_EQ(Take("IdentityIdentity", good, "10.0.0.9:1610/" + other), kStaysHere);
    EXPECT_TRUE(isIgnored()) << "speaks for another device";
    for (const std::string& content :
         {std::string("<Container"), std::string((1 << 20) + 1, ' '), std::string()}) {
        EXPECT_EQ(Trigger("FileStoreCallbackCopyUpstream", Arrived("IdentityIdentity", content)), kStaysHere);
        EXPECT_TRUE(isIgnored()) << content.size();
    }
    const KelContainer arrived = Arrived("IdentityIdentity", good.SaveToXML());
    EXPECT_EQ(Call("ConsoleReceiveUpstream", From(arrived, "127.0.3.9")), kKelErrorNotAvailable);
    EXPECT_EQ(Take("Inventory", good), 0U) << "other types are not the console's";
    EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 3U);
}

TEST_F(ConsoleUpstreamTest, ReceiptsBringAPublicationForward) {
    TakeIdentity(Identity(kDesk, "desk-9", 1700000000));
    const KelContainer published = Publish(Request("all"));
    EXPECT_EQ(CountsNow(published), "0/0/3 of 3");
    EXPECT_EQ(TakeReceipt(Receipt(kNorth, "failed", 100), kNorth), kStaysHere);
    EXPECT_EQ(TakeReceipt(Receipt(kDesk, "delivered", 200)), kStaysHere);
    EXPECT_EQ(CountsNow(published), "1/1/1 of 3");
    TakeReceipt(Receipt(kDesk, "failed", 150));
    EXPECT_EQ(CountsNow(published), "1/1/1 of 3") << "an older receipt changes nothing";
    TakeReceipt(Receipt(kNorth, "delivered", 300));
    EXPECT_EQ(CountsNow(published), "2/0/1 of 3");

    TakeReceipt(Receipt(kClient, "done", 100));
    TakeReceipt(With(Receipt(kClient, "delivered", 100), {"FileChecksum=0' OR '1'='1"}));
    TakeReceipt(Receipt(kClient, "delivered", 100), kNorth);
    EXPECT_EQ(CountsNow(published), "2/0/1 of 3");

    const KelContainer publication = Listed(published);
    ASSERT_EQ(publication.Count("Devices"), 3U);
    ExpectValues(publication.GetContainer("Devices", 0),
                 {"GUID=" + kNorth, "Name=north", "Status=delivered", "Time=300", "Message=it's delivered"});
    ExpectValues(publication.GetContainer("Devices", 1), {"Status=pending"});
    ExpectValues(publication.GetContainer("Values"), {"FileName=setup.bin", "FileSize=7"});
    EXPECT_EQ(Call("ConsoleListPublications", Values({"PublicationId=nothing' OR '1'='1"})),
              kKelErrorBadInput);
}

TEST_F(ConsoleUpstreamTest, ARefusedOfferLeavesNoPublication) {
    for (const std::uint32_t count : {0U, 1U}) {  // of the file, then of an order
        SetStoreResult(13);
        KelContainer refused = Request("north");
        EXPECT_EQ(Call("ConsolePublish", refused), 13U);
        EXPECT_FALSE(refused.Has("PublicationId"));
        const KelContainer listed = Call("ConsoleListPublications");
        EXPECT_EQ(listed.Has("Values") ? listed.Count("Values") : 0, count);
        SetStoreResult(0);
        if (count == 0) Publish(Request("none"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Console/Incoming"));
}

/// Without a name a receipt counts for the first publication, which was no order.
TEST_F(ConsoleUpstreamTest, AReceiptCountsForThePublicationsThatItNames) {
    KelVector<KelContainer> published;
    for (int i = 0; i < 3; ++i)
        published.push_back(Publish(Request("north")));
    const auto counts = [&](std::size_t i) { return CountsNow(published[i]); };
    TakeReceipt(
        With(Receipt(kNorth, "failed", 100), {"PublicationId=" + published[2].GetString("PublicationId")}));
    EXPECT_EQ(counts(0) + ", " + counts(1) + ", " + counts(2), "0/0/1 of 1, 0/0/1 of 1, 0/1/0 of 1");
    KelContainer several = Receipt(kNorth, "delivered", 101);
    for (const std::uint32_t i : {1U, 2U})
        several.SetString("PublicationId", published[i].GetString("PublicationId"), i - 1);
    TakeReceipt(several);
    EXPECT_EQ(counts(0) + ", " + counts(1) + ", " + counts(2), "0/0/1 of 1, 1/0/0 of 1, 1/0/0 of 1");
    TakeReceipt(Receipt(kNorth, "failed", 102));
    EXPECT_EQ(counts(0) + ", " + counts(1) + ", " + counts(2), "0/1/0 of 1, 1/0/0 of 1, 1/0/0 of 1");
}

/// Every receipt makes the console look at the stages again.
TEST_F(ConsoleUpstreamTest, StagesFollowEachOtherAndStopAtFailuresOverRestarts) {
    TakeIdentity(Identity(kDesk, "desk-9", now_ - 100));
    module_.reset();
    std::optional<ActiveModule<Console>> active(std::in_place);
    KelContainer request = With(Request("desk-9"), {"Bypass=true", "Priority=7"});
    for (const auto& [index, device, percent] :
         {std::tuple(0U, kDesk, 1), {1U, kNorth, 50}, {2U, kClient, 100}}) {
        request.SetString("Device", device, index);
        request.SetInt32("Stage", percent, index);
    }
    const KelContainer published = Publish(With(request, "FileInfo", Values({"Note=it's"})));
    const KelString id = published.GetString("PublicationId");
    const auto state = [&] {
        const KelContainer values = Listed(published).GetContainer("Values");
        return values.GetString("State") + " " + values.GetString("Stage") + "/" +
               values.GetString("StageCount") + " " + values.GetString("Reason");
    };
    const auto receive = [&](const std::string& guid, const std::string& status) {
        EXPECT_EQ(TakeReceipt(With(Receipt(guid, status, 100), {"PublicationId=" + id})), kStaysHere);
    };
    const auto resume = [&](const Texts& values, const char* caller) {
        return Call("ConsoleResume", From(With(Values({"PublicationId=" + id}), values), caller));
    };
    ASSERT_EQ(OfferCount(), 1U);
    EXPECT_EQ(Offers()[0].GetContainer("DevicePath").GetContainer(kMasterPath).GetNameCount(), 1U)
        << "the desk";

    SetStoreResult(13);
    receive(kDesk, "delivered");
    EXPECT_TRUE(
        Eventually([&] { return log_->Count(KelDebugLevel::Warning, "waits: The file store did") == 1; }));
    EXPECT_EQ(Listed(published).GetContainer("Devices", 1).GetString("Status"), "scheduled");
    SetStoreResult(0);
    receive(kDesk, "delivered");
    ASSERT_TRUE(Eventually([&] { return OfferCount() == 2U; }));
    const KelContainer order = Offers()[1];
    ExpectValues(order, {"FileType=DeliveryOrder", "FileName=" + id, "Bypass=true", "Priority=7"});
    EXPECT_EQ(order.GetContainer("FileInfo").GetContainer("FileInfo").GetString("Note"), "it's");
    EXPECT_EQ(order.GetContainer("DevicePath"), With({}, kMasterPath, With({}, kNorthPath, KelContainer())));
    EXPECT_TRUE(
        Eventually([&] { return Listed(published).GetContainer("Stages", 1).GetInt32("Pending") == 1; }));
    EXPECT_EQ(resume({}, ""), kKelErrorBadInput) << "not stopped";

    receive(kNorth, "failed");
    EXPECT_TRUE(Eventually([&] { return state() == "stopped 2/3 1 of its targets failed"; }));
    active.reset();
    active.emplace();
    receive(kNorth, "failed");
    EXPECT_EQ(state(), "stopped 2/3 1 of its targets failed");
    EXPECT_EQ(OfferCount(), 2U);
    EXPECT_EQ(resume({}, "127.0.3.9"), kKelErrorNotAvailable);
    EXPECT_EQ(resume({}, ""), 0U);
    ASSERT_TRUE(Eventually([&] { return OfferCount() == 3U; })) << "the failure of before counts no more";
    EXPECT_EQ(Offers()[2].GetContainer("DevicePath"),
              With({}, kMasterPath, With({}, kNorthPath, With({}, kClientPath, KelContainer()))));
    receive(kClient, "delivered");
    EXPECT_TRUE(Eventually([&] { return state() == "complete 3/3 "; }));
    EXPECT_EQ(CountsNow(published), "2/1/0 of 3");
    EXPECT_EQ(resume({"Next=true"}, ""), kKelErrorBadInput);
}

TEST_F(ConsoleUpstreamTest, NextStageNeedNotWaitAndUnusableStagesAreRefused) {
    module_.reset();
    ActiveModule<Console> active;
    KelContainer request = Request(kNorth);
    request.SetString("Device", kClient, 1);
    const Texts unusable[] = {{"0", "100"},  {"50"},  {"50", "50", "100"},
                              {"100", "50"}, {"101"}, {"x", "100"}};
    const auto staged = [&request](const Texts& percents) {
        KelContainer with = request;
        for (std::uint32_t i = 0; i < percents.size(); ++i)
            with.SetString("Stage", percents[i], i);
        return with;
    };
    for (const Texts& percents : unusable)
        EXPECT_EQ(Call("ConsolePublish", staged(percents)), kKelErrorBadInput) << percents[0];
    EXPECT_EQ(Call("ConsolePublish", With(staged({"100"}), {"StopAtFailures=-1"})), kKelErrorBadInput);
    EXPECT_FALSE(Call("ConsoleListPublications").Has("Values"));

    const KelContainer published = Publish(staged({"50", "100"}));
    EXPECT_EQ(Call("ConsoleResume", With(published, {"Next=true"})), 0U);
    ASSERT_TRUE(
        Eventually([&] { return Listed(published).GetContainer("Stages", 1).GetInt32("Pending") == 1; }));
    EXPECT_EQ(OfferCount(), 2U);
    EXPECT_EQ(Call("ConsoleResume", Publish(Request(kNorth))), kKelErrorBadInput) << "not in stages";

    const KelContainer other = Publish(staged({"50", "100"}));
    const std::uint32_t offers = OfferCount();
    EXPECT_EQ(Call("ConsoleWithdraw", Values({"PublicationId=" + other.GetString("PublicationId")})), 0U);
    EXPECT_EQ(Call("ConsoleResume", With(other, {"Next=true"})), kKelErrorBadInput);
    ExpectValues(Listed(other).GetContainer("Values"),
                 {"State=withdrawn", "Stage=1", "Withdrawn=2", "Pending=0"});
    EXPECT_EQ(OfferCount(), offers);
}

TEST_F(ConsoleUpstreamTest, PublicationsAreListedLatestFirstEvenWithinOneSecond) {
    KelVector<KelString> ids(8);
    for (auto id = ids.rbegin(); id != ids.rend(); ++id)
        *id = Publish(Request("north")).GetString("PublicationId");
    const KelContainer all = Call("ConsoleListPublications");
    ASSERT_EQ(all.Count("Values"), ids.size());
    for (std::uint32_t i = 0; i < ids.size(); ++i)
        EXPECT_EQ(all.GetContainer("Values", i).GetString("PublicationId"), ids[i]);

    KelContainer named, one = Values({"CountsOnly=true", "PublicationId=" + ids[3]});
    for (const std::uint32_t i : {0U, 1U, 2U})
        named.SetString("PublicationId", ids[i == 1 ? 7 : 0], i);
    EXPECT_EQ(Call("ConsoleListPublications", named) + Call("ConsoleListPublications", one), 0U);
    EXPECT_EQ(named.GetContainer("Values").GetString("PublicationId"), ids[0]);
    EXPECT_EQ(named.Count("Values") + one.Count("Values"), 3U);
    EXPECT_FALSE(named.Has("Devices") || one.Has("Devices"));
    EXPECT_EQ(Call("ConsoleListPublications", With(named, {"PublicationId=unknown"})), kKelErrorBadInput);
}

/// What the file store is asked to withdraw.
class ConsoleWithdrawTest : public ConsoleUpstreamTest {
  protected:
    void SetUp() override {
        ConsoleUpstreamTest::SetUp();
        FakeAction("FileStoreWithdrawFile (string FileType)", [this](KelContainer* container) {
            calls_.push_back(container->GetString("FileType") + " from " + NamesIn(*container) +
                             (container->GetBool("KeepContent") ? " keep" : "") +
                             (container->GetBool("Removed") ? " removed" : ""));
            return result_;
        });
        TakeIdentity(Identity(kDesk, "desk-9", now_));
    }
    /// The targets in the tree of a call, which has two levels below the master.
    static KelString NamesIn(const KelContainer& call) {
        const KelContainer tree = call.GetContainer("DevicePath");
        if (tree.IsEmpty()) return "none";
        const KelContainer top = tree.GetContainer(kMasterPath);
        KelString names;
        for (const auto& [guid, name] : {std::pair(kNorth, "north "), {kClient, "client "}, {kDesk, "desk "}})
            if (tree.SaveToXML().find(guid) != KelString::npos) names += name;
        return names + KelFormat("%d", static_cast<int>(top.GetNameCount()));
    }
    Texts TakeCalls() { return std::exchange(calls_, {}); }
    static KelContainer Withdraw(const KelContainer& published, unsigned int code = 0) {
        KelContainer call = Values({"PublicationId=" + published.GetString("PublicationId")});
        EXPECT_EQ(Call("ConsoleWithdraw", call), code);
        return call;
    }
    bool IsPackageThere(const KelContainer& published) {
        return std::filesystem::exists(
            root_ / ("data/Console/Packages/tools/" + published.GetString("FileChecksum") + "/setup.bin"));
    }
    Texts calls_;
    unsigned int result_ = 0;
};

TEST_F(ConsoleWithdrawTest, WhatHasNotBegunIsWithdrawnAndTheFileGoesUnlessAnotherPublicationNeedsIt) {
    const KelContainer first = Publish(Request("all"));
    TakeReceipt(Receipt(kNorth, "delivered", 100));
    const KelContainer second = Publish(Request(kClient));
    EXPECT_EQ(TakeCalls(), Texts{});
    ExpectValues(Withdraw(first).GetContainer("Values"), {"Delivered=1", "Withdrawn=2", "Pending=0"});
    EXPECT_EQ(TakeCalls(), Texts{"Package from desk 1 keep"}) << "the client waits for the other one";
    EXPECT_TRUE(IsPackageThere(first));
    TakeReceipt(Receipt(kDesk, "delivered", 200));
    EXPECT_EQ(Listed(first).GetContainer("Values").GetString("Delivered"), "2") << "it had begun";
    Withdraw(first);
    EXPECT_EQ(TakeCalls(), Texts{}) << "once only";

    result_ = kKelErrorInternal;
    Withdraw(second);
    EXPECT_EQ(TakeCalls(), Texts{"DeliveryOrder from north client 1"});
    EXPECT_EQ(Call("ConsolePublish", Request("north")), kKelErrorNotAvailable) << "it must not overtake";
    EXPECT_TRUE(IsPackageThere(first));
    result_ = 0;
    calls_.clear();
    module_.reset();
    { const ActiveModule<Console> started; }
    EXPECT_EQ(TakeCalls(), (Texts{"DeliveryOrder from north client 1", "Package from north client 1"}));
    EXPECT_FALSE(IsPackageThere(first));
    module_.emplace();
    const std::size_t offers = OfferCount();
    const KelContainer third = Publish(Request("north"));
    EXPECT_EQ(Offers().back().GetString("FileType"), "DeliveryOrder") << "stores below may still have it";
    EXPECT_EQ(TakeCalls(), Texts{});
    TakeReceipt(With(Receipt(kNorth, "failed", 300), {"PublicationId=" + third.GetString("PublicationId")}));
    EXPECT_EQ(TakeCalls(), Texts{"DeliveryOrder from none"}) << "the order is answered";
    EXPECT_GT(OfferCount(), offers);
    EXPECT_EQ(Call("ConsoleWithdraw", From(Values({"PublicationId=x"}), "127.0.3.9")), kKelErrorNotAvailable);
    EXPECT_EQ(Call("ConsoleWithdraw", Values({"PublicationId=x"})), kKelErrorBadInput);
}

TEST_F(ConsoleWithdrawTest, RemovedDeviceIsShownNoMoreAndNothingIsPendingForIt) {
    const KelContainer published = Publish(Request("all"));
    for (const std::string& device : {kMaster, kNorth, kClient, std::string("nobody")})
        EXPECT_EQ(Call("ConsoleRemoveDevice", Values({"Device=" + device})), kKelErrorBadInput) << device;
    EXPECT_EQ(Call("ConsoleRemoveDevice", Values({"Device=desk-9"})), 0U);
    EXPECT_EQ(TakeCalls(), Texts{"Package from desk 1 keep removed"});
    EXPECT_TRUE(DeviceNamed(kDesk).IsEmpty());
    ExpectValues(Listed(published).GetContainer("Values"), {"Removed=1", "Pending=2", "Targets=3"});
    TakeIdentity(Identity(kDesk, "desk-9", now_));
    ExpectValues(DeviceNamed(kDesk), {"Name=desk-9", "SilentSince=0"});
}

TEST_F(ConsoleUpstreamTest, AllAreNoDevicesThatNothingLeadsTo) {
    TakeIdentity(With(Identity(kDesk, "lost", now_), {"ParentGuid=ABCD0000-0000-0000-0000-0000000000FF"}));
    EXPECT_EQ(Call("ConsolePublish", Request("lost")), kKelErrorBadInput);
    const KelContainer published = Publish(Request("all"));
    ExpectValues(published, {"Targets=2", "LeftOut=1"});
    EXPECT_EQ(CountsNow(published), "0/0/2 of 2");
}

TEST_F(ConsoleUpstreamTest, WithoutItsDatabaseNothingIsAcknowledged) {
    module_.reset();
    std::filesystem::remove_all(root_ / "data/Console");
    WriteIni("Console", "[Devices]\n");
    { RunningModule<Console> module(Start::Fails); }
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "SqlUpgrade"), 1);
    WriteDevices({});
    module_.emplace();
    module_->Cleanup();
    EXPECT_EQ(TakeIdentity(Identity(kDesk, "desk-9", 1700000000)), kNotReady);
    EXPECT_NE(Call("ConsolePublish", Request("none")), 0U);
    EXPECT_TRUE(Offers().empty());
}

}  // namespace

#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/format.h"

using namespace filestore;

namespace {

constexpr const char* kBehindPort =
    "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";

class NotificationTest : public StepTest {
  protected:
    using Ids = KelVector<KelString>;

    void SetUp() override {
        StepTest::SetUp();
        FakeResult("TestConsume ()", 0);
    }
    /// A file that is due to be announced.
    static unsigned long Announced(const KelString& name, const KelString& set = "KeepCopy = 0") {
        return AddFile(false, name, kStatusAvailable, "Acknowledged = 1, CreateTime = 1, " + set);
    }
    static Ids Targets(const KelString& condition = "1 = 1") {
        return Rows(Downstream(), "SELECT TargetId FROM Targets WHERE " + condition + " ORDER BY TargetId");
    }
    /// The targets whose time of notification is this many seconds from now.
    static Ids TargetsToldIn(unsigned long seconds) {
        const std::int64_t time = std::time(nullptr) + static_cast<std::int64_t>(seconds);
        return Targets(KelFormat("LastNotifyTime BETWEEN %ld AND %ld", time - 60, time));
    }
    static int Notify(unsigned long fileId = 0, unsigned int targetId = 0) {
        return FileStore::threadNotify.NotifyUnicastTargets(static_cast<unsigned int>(fileId), targetId);
    }

    const ScriptedServer child_{ScriptedServer::ActionScript(0)}, refusing_{ScriptedServer::ActionScript(5)};
    const KelString childDevice_ = child_.HostAndPort() + kBehindPort;
    const KelString refusingDevice_ = refusing_.HostAndPort() + kBehindPort;
    const std::shared_ptr<void> delivery_ = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
};

TEST_F(NotificationTest, LocalTargetIsToldByCallbackAndDone) {
    const unsigned long fileId = Announced("n'1", "KeepCopy = 3, " + SetInfo(Info()));
    AddTarget(fileId, 1, "");
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Targets(), Ids{});
    const KelContainer told = OnlyCallOf("TestConsume");
    EXPECT_EQ(Texts(told, "FilePath FileURL KeepCopy"), PathOf(false, Load(false, fileId)) + "|(none)|3");
    EXPECT_EQ(told.GetContainer("FileInfo"), Info());
    EXPECT_EQ(Notify(), 0);
}

TEST_F(NotificationTest, RemoteTargetsAreCalledAndPostponedByTheirAnswer) {
    const unsigned long fileId = Announced("n", "FileSize = 17");
    AddTarget(fileId, 1, childDevice_);
    AddTarget(fileId, 2, refusingDevice_);
    AddTarget(fileId, 3, refusingDevice_);
    AddTarget(AddFile(false, "later", kStatusReceiving), 4, refusingDevice_);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(refusing_.Requests().size(), 2U) << "both rows of a failing device are tried in one batch";
    EXPECT_EQ(TargetsToldIn(4 * FileStore::ulTimeout), Ids{"1"});
    EXPECT_EQ(TargetsToldIn(0), (Ids{"2", "3", "4"}));
    const KelContainer call = OnlyCallTo(child_, "FileStoreReceiveFile");
    EXPECT_EQ(Texts(call, "FileURL FileSize FilePath"),
              KelString("/FileStore/downstream/") + kKeyFolder + "n|17|(none)");
    EXPECT_EQ(call.GetContainer("DevicePath").GetName(0), childDevice_);
    EXPECT_EQ(Notify(), 0);
}

TEST_F(NotificationTest, UnusableAddressesAreDroppedForGood) {
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, "127.0.0.1:1/G");
    AddTarget(fileId, 2, "host:1/G/m/169.254.3.4/n");
    AddTarget(fileId, 3, "10.0.0.0.0:1/G");
    AddTarget(fileId, 4, ":1/G");
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Targets(), Ids{});
}

TEST_F(NotificationTest, TargetThatCannotBeCalledIsWokenWhenAskedFor) {
    FakeResult("WakeOnLanWakeUp ()", 0);
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, refusingDevice_, 0, 0);
    AddTarget(fileId, 2, refusing_.HostAndPort() + "/short/path", 0, 1);
    EXPECT_EQ(Notify(), 1);
    EXPECT_TRUE(CallsOf("WakeOnLanWakeUp").empty());

    AddTarget(fileId, 3, refusingDevice_, 0, 1);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Texts(OnlyCallOf("WakeOnLanWakeUp"),
                    "WakeOnLanDeviceMACAddr WakeOnLanDeviceIPAddr WakeOnLanDeviceNetworkMask"),
              "02-00-7F-00-01-08|127.0.1.1|255.0.0.0");
}

TEST_F(NotificationTest, MostUrgentAndLongestWaitingGoFirst) {
    const std::int64_t now = std::time(nullptr);
    // Both were created and told last at times whose weights decide: 0.33 and 0.67.
    AddTarget(Announced("old file told lately", "CreateTime = 1000"), 1, "", 2000);
    AddTarget(Announced("young file never told", "CreateTime = 3000"), 2, "", 0);
    AddTarget(Announced("urgent", "Priority = 500"), 3, "", 5000);
    AddTarget(Announced("not due"), 4, "", now);
    AddTarget(Announced("changed lately", KelFormat("LastStatusChangeTime = %ld", now)), 5, "");
    AddTarget(Announced("unacknowledged", "Acknowledged = 0"), 6, "");
    EXPECT_EQ(Notify(), 1);
    Ids order;
    for (const KelContainer& call : CallsOf("TestConsume"))
        order.push_back(call.GetString("FileName"));
    EXPECT_EQ(order, (Ids{"urgent", "young file never told", "old file told lately"}));
    EXPECT_EQ(Targets(), (Ids{"4", "5", "6"}));
}

TEST_F(NotificationTest, ClosedWindowLetsBypassAndLocalTargetsThrough) {
    CloseWindow(FileStore::bmTrackUsageDown);
    AddTarget(Announced("ordinary"), 1, childDevice_);
    AddTarget(Announced("local"), 2, "");
    AddTarget(Announced("bypass", "Bypass = 1"), 3, childDevice_);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Targets(), (Ids{"1", "3"}));
    EXPECT_EQ(OnlyCallTo(child_, "FileStoreReceiveFile").GetString("FileName"), "bypass");
}

TEST_F(NotificationTest, BatchHoldsFiftyTargetsOrOneBesideLimitedMulticast) {
    const unsigned long fileId = Announced("n");
    for (unsigned long target = 1; target <= 60; ++target)
        AddTarget(fileId, target, "");
    LimitWindow(FileStore::bmTrackUsageMulticast, 8);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Targets().size(), 59U);
    FileStore::bmTrackUsageMulticast.ClearWindow();
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Targets().size(), 9U);
}

TEST_F(NotificationTest, StepEndsWhileTheDatabaseTakesNothing) {
    Fake("TestConsume ()", [this](KelContainer&) {
        if (CallsOf("TestConsume").size() > 1) Rows(Downstream(), "PRAGMA query_only=0");
        return 0U;
    });
    AddTarget(Announced("n"), 1, "");
    Rows(Downstream(), "PRAGMA query_only=1");
    Exposed<FileStoreNotifyThread>().DoWork();
    Rows(Downstream(), "PRAGMA query_only=0");
    EXPECT_EQ(CallsOf("TestConsume").size(), 1U);
}

TEST_F(NotificationTest, SingleModeTellsExactlyThatTargetWhateverItsTimes) {
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, "", std::time(nullptr));
    AddTarget(fileId, 2, "");
    EXPECT_EQ(Notify(fileId, 1), 1);
    EXPECT_EQ(Targets(), Ids{"2"});
    EXPECT_EQ(Notify(fileId, 9), 0);
}

TEST_F(NotificationTest, TargetsThatAreNoChildrenOfOursGetARuleFile) {
    const KelString type = "OperationalRuleAdministratedRelay";
    AddTarget(Announced("pack", KelFormat("FileStatus = '%s', KeepCopy = 3", kStatusNotRelaysChild)), 1,
              childDevice_);
    EXPECT_EQ(Notify(), 1);
    const KelContainer call = OnlyCallTo(child_, "FileStoreReceiveFile");
    EXPECT_EQ(Texts(call, "FileType FileLabel KeepCopy"), type + "|" + type + "|0");
    const KelString name = call.GetString("FileName"), checksum = call.GetString("FileChecksum");
    EXPECT_TRUE(name.starts_with(type + "_"));
    const KelString content = Content(FileStore::StorePath(false, type, type, checksum, name));
    EXPECT_EQ(TextMd5(content), checksum);
    EXPECT_EQ(call.GetInt64("FileSize"), static_cast<std::int64_t>(content.size()));
    EXPECT_EQ(Texts(FromXml(content), "FileName FileStatus"), KelString("pack|") + kStatusNotRelaysChild);
}

}  // namespace

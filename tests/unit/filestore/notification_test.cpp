#include <ctime>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kelcore/callback_db.h"

using namespace filestore;

namespace {

constexpr const char* kBehindPort =
    "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
constexpr const char* kCallback = "DeliveryFake ()";
constexpr const char* kEvent = "FileStoreCallbackReceivedFile";

class NotificationTest : public TransferTest {
  protected:
    void SetUp() override {
        TransferTest::SetUp();
        FakeResult(kCallback, 0);
        CallbackDbRegisterAction(kEvent, kCallback, "", 0);
    }
    void TearDown() override { CallbackDbDeleteAction(kEvent, kCallback, ""); }

    /// A file that is due to be announced.
    static unsigned long Announced(const KelString& name,
                                   const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddFile(false, name, kStatusAvailable, [&](FileStoreEntry& entry) {
            entry.Acknowledged = true;
            entry.CreateTime = 1;
            if (change) change(entry);
        });
    }
    static KelString Remaining() {
        KelString text;
        for (const KelString& id : Rows(Downstream(), "SELECT TargetId FROM Targets ORDER BY TargetId"))
            text += id + " ";
        return text;
    }
    /// LastNotifyTime of a target, counted from now.
    static std::int64_t NotifiedIn(unsigned long targetId) {
        return std::stoll(Cell(Downstream(), "SELECT LastNotifyTime FROM Targets WHERE TargetId = " +
                                                 std::to_string(targetId))) -
               std::time(nullptr);
    }
    static bool Near(std::int64_t value, std::int64_t expected) {
        return value <= expected && value > expected - 60;
    }
    static int Notify() { return FileStore::threadNotify.NotifyUnicastTargets(0, 0); }
    static void CloseWindow(FileStoreBandwidthManager& manager) {
        KelContainer window;
        window.SetString("Slots", "1");
        window.SetInt32("SlotType", 2);
        manager.UpdateTransferWindow(window);
        manager.CancelAllTransfers();
    }
};

TEST_F(NotificationTest, LocalTargetIsToldByCallbackAndDone) {
    KelContainer info;
    info.SetString("Fact", "it's");
    const unsigned long fileId = Announced("n'1", [&](FileStoreEntry& entry) {
        entry.KeepCopy = 3;
        entry.FileInfo = info.SaveToXML();
    });
    AddTarget(fileId, 1, "");
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Remaining(), "");
    ASSERT_EQ(CallsOf("DeliveryFake").size(), 1U);
    const KelContainer told = CallsOf("DeliveryFake")[0];
    EXPECT_EQ(told.GetString("FilePath"),
              FileStore::StorePath(false, "Type", "Label", "0123456789abcdef0123456789abcdef", "n'1"));
    EXPECT_FALSE(told.Has("FileURL"));
    EXPECT_EQ(told.GetInt32("KeepCopy"), 3);
    EXPECT_EQ(told.GetContainer("FileInfo"), info);
    EXPECT_EQ(Notify(), 0);
}

TEST_F(NotificationTest, RemoteTargetsAreCalledAndPostponedByTheirAnswer) {
    ScriptedServer good([](const auto&) { return ScriptedServer::ActionResult(0); });
    ScriptedServer bad([](const auto&) { return ScriptedServer::ActionResult(5); });
    const unsigned long fileId = Announced("n", [](FileStoreEntry& entry) { entry.FileSize = 17; });
    const unsigned long later = AddFile(false, "later", kStatusReceiving);
    AddTarget(fileId, 1, good.HostAndPort() + kBehindPort);
    AddTarget(fileId, 2, bad.HostAndPort() + kBehindPort);
    AddTarget(fileId, 3, bad.HostAndPort() + kBehindPort);
    AddTarget(later, 4, bad.HostAndPort() + kBehindPort);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(good.Requests().size(), 1U);
    EXPECT_EQ(bad.Requests().size(), 2U) << "both rows of a failing device are tried in one batch";
    EXPECT_TRUE(Near(NotifiedIn(1), 4 * static_cast<std::int64_t>(FileStore::ulTimeout)));
    for (const unsigned long target : {2UL, 3UL, 4UL})
        EXPECT_TRUE(Near(NotifiedIn(target), 0)) << target;

    const KelContainer call = good.Requests()[0].Arguments();
    EXPECT_EQ(good.Requests()[0].path, "/Action/FileStoreReceiveFile");
    EXPECT_EQ(call.GetString("FileURL"),
              "/FileStore/downstream/Type/Label/0123456789abcdef0123456789abcdef/n");
    EXPECT_EQ(call.GetInt64("FileSize"), 17);
    EXPECT_EQ(call.GetContainer("DevicePath").GetName(0), good.HostAndPort() + kBehindPort);
    EXPECT_FALSE(call.Has("FilePath"));
    EXPECT_EQ(Notify(), 0);
}

TEST_F(NotificationTest, UnusableAddressesAreDroppedForGood) {
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, "127.0.0.1:1/G");
    AddTarget(fileId, 2, "host:1/G/m/169.254.3.4/n");
    AddTarget(fileId, 3, "10.0.0.0.0:1/G");
    AddTarget(fileId, 4, ":1/G");
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Remaining(), "");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "NotifyThread: Will ignore invalid destination address"));
}

TEST_F(NotificationTest, TargetThatCannotBeCalledIsWokenWhenAskedFor) {
    FakeResult("WakeOnLanWakeUp ()", 0);
    ScriptedServer bad([](const auto&) { return ScriptedServer::ActionResult(5); });
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, bad.HostAndPort() + kBehindPort, 0, 0);
    AddTarget(fileId, 2, bad.HostAndPort() + "/short/path", 0, 1);
    EXPECT_EQ(Notify(), 1);
    EXPECT_TRUE(CallsOf("WakeOnLanWakeUp").empty());
    EXPECT_TRUE(HasLogged(KelDebugLevel::Trace, "Cannot use WakeOnLan, bad format"));

    Rows(Downstream(), "DELETE FROM Targets");
    AddTarget(fileId, 3, bad.HostAndPort() + kBehindPort, 0, 1);
    EXPECT_EQ(Notify(), 1);
    ASSERT_EQ(CallsOf("WakeOnLanWakeUp").size(), 1U);
    const KelContainer call = CallsOf("WakeOnLanWakeUp")[0];
    EXPECT_EQ(call.GetString("WakeOnLanDeviceMACAddr"), "02-00-7F-00-01-08");
    EXPECT_EQ(call.GetString("WakeOnLanDeviceIPAddr"), "127.0.1.1");
    EXPECT_EQ(call.GetString("WakeOnLanDeviceNetworkMask"), "255.0.0.0");
}

TEST_F(NotificationTest, MostUrgentAndLongestWaitingGoFirst) {
    const std::int64_t now = std::time(nullptr);
    const auto created = [](std::int64_t time) {
        return [time](FileStoreEntry& entry) { entry.CreateTime = time; };
    };
    // Both were created and told last at times whose weights decide: 0.33 and 0.67.
    AddTarget(Announced("old file told lately", created(1000)), 1, "", 2000);
    AddTarget(Announced("young file never told", created(3000)), 2, "", 0);
    AddTarget(Announced("urgent", [](FileStoreEntry& entry) { entry.Priority = 500; }), 3, "", 5000);
    AddTarget(Announced("not due", created(1)), 4, "", now);
    AddTarget(Announced("changed lately", [&](FileStoreEntry& entry) { entry.LastStatusChangeTime = now; }),
              5, "");
    AddTarget(Announced("unacknowledged", [](FileStoreEntry& entry) { entry.Acknowledged = false; }), 6, "");
    EXPECT_EQ(Notify(), 1);
    KelString order;
    for (const KelContainer& call : CallsOf("DeliveryFake"))
        order += call.GetString("FileName") + ", ";
    EXPECT_EQ(order, "urgent, young file never told, old file told lately, ");
    EXPECT_EQ(Remaining(), "4 5 6 ");
}

TEST_F(NotificationTest, ClosedWindowLetsBypassAndLocalTargetsThrough) {
    ScriptedServer child([](const auto&) { return ScriptedServer::ActionResult(0); });
    CloseWindow(FileStore::bmTrackUsageDown);
    const KelString device = child.HostAndPort() + kBehindPort;
    AddTarget(Announced("ordinary"), 1, device);
    AddTarget(Announced("local"), 2, "");
    AddTarget(Announced("bypass", [](FileStoreEntry& entry) { entry.Bypass = true; }), 3, device);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Remaining(), "1 3 ");
    ASSERT_EQ(child.Requests().size(), 1U);
    EXPECT_EQ(child.Requests()[0].Arguments().GetString("FileName"), "bypass");
}

TEST_F(NotificationTest, BatchHoldsFiftyTargetsOrOneBesideLimitedMulticast) {
    const unsigned long fileId = Announced("n");
    for (unsigned long target = 1; target <= 60; ++target)
        AddTarget(fileId, target, "");
    KelContainer window;
    KelString slots = "8";
    for (int i = 1; i < 168; ++i)
        slots += " 8";
    window.SetString("Slots", slots);
    window.SetInt32("SlotType", 2);
    FileStore::bmTrackUsageMulticast.UpdateTransferWindow(window);
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Count(Downstream(), "Targets"), "59");
    FileStore::bmTrackUsageMulticast.ClearWindow();
    EXPECT_EQ(Notify(), 1);
    EXPECT_EQ(Count(Downstream(), "Targets"), "9");
}

TEST_F(NotificationTest, SingleModeTellsExactlyThatTargetWhateverItsTimes) {
    const unsigned long fileId = Announced("n");
    AddTarget(fileId, 1, "", std::time(nullptr));
    AddTarget(fileId, 2, "");
    EXPECT_EQ(FileStore::threadNotify.NotifyUnicastTargets(static_cast<unsigned int>(fileId), 1), 1);
    EXPECT_EQ(Remaining(), "2 ");
    EXPECT_EQ(FileStore::threadNotify.NotifyUnicastTargets(static_cast<unsigned int>(fileId), 9), 0);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Detail, "NotifyThread: Nothing found to notify"));
}

TEST_F(NotificationTest, TargetsThatAreNoChildrenOfOursGetARuleFile) {
    ScriptedServer child([](const auto&) { return ScriptedServer::ActionResult(0); });
    const unsigned long fileId = Announced("pack", [](FileStoreEntry& entry) {
        entry.FileStatus = kStatusNotRelaysChild;
        entry.KeepCopy = 3;
    });
    AddTarget(fileId, 1, child.HostAndPort() + kBehindPort);
    EXPECT_EQ(Notify(), 1);
    ASSERT_EQ(child.Requests().size(), 1U);
    const KelContainer call = child.Requests()[0].Arguments();
    const KelString type = "OperationalRuleAdministratedRelay";
    EXPECT_EQ(call.GetString("FileType"), type);
    EXPECT_EQ(call.GetString("FileLabel"), type);
    EXPECT_TRUE(call.GetString("FileName").starts_with(type + "_"));
    EXPECT_EQ(call.GetInt32("KeepCopy"), 0);
    const KelString path =
        FileStore::StorePath(false, type, type, call.GetString("FileChecksum"), call.GetString("FileName"));
    EXPECT_EQ(TextMd5(Content(path)), call.GetString("FileChecksum"));
    EXPECT_EQ(call.GetInt64("FileSize"), FileGetSize64(path));
    KelContainer rule;
    ASSERT_TRUE(static_cast<bool>(rule.LoadFromFile(path)));
    EXPECT_EQ(rule.GetString("FileName"), "pack");
    EXPECT_EQ(rule.GetString("FileStatus"), kStatusNotRelaysChild);
}

}  // namespace

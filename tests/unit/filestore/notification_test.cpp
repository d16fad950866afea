#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

constexpr const char* kBehindPort =
    "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
constexpr const char* kUntaken = "FileStoreGetUntakenFiles";

struct NotificationTest : StoreTest {
    NotificationTest() { FakeResult("TestConsume ()", 0); }
    /// A file that is due to be announced.
    static std::uint64_t Announced(const KelString& name, const KelString& set = "KeepCopy = 0") {
        return AddFile(kDown, name, "AVAILABLE", "Acknowledged = 1, CreateTime = 1, " + set);
    }
    /// Announces what is due, or one target; whether there was anything.
    static bool Notify(std::uint64_t fileId = 0, unsigned int targetId = 0) {
        return FileStore::threadNotify.NotifyUnicastTargets(static_cast<unsigned int>(fileId), targetId) != 0;
    }
    /// A file of t/l/name/checksum that is given to the modules of this device.
    static void HandOver(const KelString& name, const KelString& set = "Acknowledged = 1") {
        const std::uint64_t fileId = Announced(name, set);
        AddTarget(fileId, fileId, "");
        Notify();
    }
    static KelContainer Taken(const KelString& name, const KelString& checksum = "c") {
        return Make({{"Taken", With(Offer("t", checksum), {{"FileName", name}})}});
    }
    /// Name and checksum of each file that none has taken.
    static Texts Untaken() { return ReadValues(Ask(kUntaken), "FileName FileChecksum"); }

    const TestHttpServer child_{TestHttpServer::ActionScript(0)}, refusing_{TestHttpServer::ActionScript(5)};
    const KelString childDevice_ = child_.HostAndPort() + kBehindPort;
    const KelString refusingDevice_ = refusing_.HostAndPort() + kBehindPort;
    const std::shared_ptr<void> delivery_ = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
};

TEST_F(NotificationTest, LocalTargetIsNotifiedByCallbackWhateverTheWindowAndDone) {
    CloseWindow(FileStore::bmTrackUsageDown);
    const std::uint64_t fileId = Announced("it's", "KeepCopy = 3, " + SetInfo(Info()));
    AddTarget(fileId, 1, "");
    EXPECT_TRUE(Notify());
    EXPECT_EQ(Targets(), Texts{});
    const KelContainer call = OnlyCallOf("TestConsume");
    EXPECT_EQ(Read(call, "FilePath FileURL KeepCopy"), PathOf(kDown, fileId) + "|(none)|3");
    EXPECT_EQ(call.GetContainer("FileInfo"), Info());
    EXPECT_FALSE(Notify());
}

TEST_F(NotificationTest, RemoteTargetsAreCalledAndPostponedByTheirAnswer) {
    const std::uint64_t fileId = Announced("n", "FileSize = 17");
    AddTarget(fileId, 1, childDevice_);
    AddTarget(fileId, 2, refusingDevice_);
    AddTarget(fileId, 3, refusingDevice_);
    AddTarget(AddFile(kDown, "later", "RECEIVING"), 4, refusingDevice_);
    EXPECT_TRUE(Notify());
    EXPECT_EQ(refusing_.Requests().size(), 1U)
        << "a device that failed is left alone for the rest of the batch";
    Texts times = Targets("LastNotifyTime");
    EXPECT_NEAR(std::stod(times.at(0)) - static_cast<double>(std::time(nullptr)), 4 * FileStore::ulTimeout,
                60);
    EXPECT_EQ(times, (Texts{times[0], "now", "now", "now"}));
    const KelContainer call = OnlyCallTo(child_, "FileStoreReceiveFile");
    EXPECT_EQ(Read(call, "FileURL FileSize FilePath"), "/FileStore/downstream/t/l/c/n|17|(none)");
    EXPECT_EQ(call.GetContainer("DevicePath").GetName(0), childDevice_);
    EXPECT_FALSE(Notify());
}

TEST_F(NotificationTest, UnusableAddressesAreDroppedForGood) {
    const std::uint64_t fileId = Announced("n");
    std::uint64_t targetId = 0;
    for (const char* device : {"127.0.0.1:1/G", "host:1/G/m/169.254.3.4/n", "10.0.0.0.0:1/G", ":1/G"})
        AddTarget(fileId, ++targetId, device);
    EXPECT_TRUE(Notify());
    EXPECT_EQ(Targets(), Texts{});
}

TEST_F(NotificationTest, TargetThatCannotBeCalledIsWokenWhenAskedFor) {
    FakeResult("WakeOnLanWakeUp ()", 0);
    const std::uint64_t fileId = Announced("n");
    AddTarget(fileId, 1, refusingDevice_, 0, 0);
    AddTarget(fileId, 2, refusing_.HostAndPort() + "/short/path", 0, 1);
    AddTarget(fileId, 3, refusingDevice_, 0, 1);
    EXPECT_TRUE(Notify());
    EXPECT_EQ(Read(OnlyCallOf("WakeOnLanWakeUp"),
                   "WakeOnLanDeviceMACAddr WakeOnLanDeviceIPAddr WakeOnLanDeviceNetworkMask"),
              "02-00-7F-00-01-08|127.0.1.1|255.0.0.0");
}

TEST_F(NotificationTest, MostUrgentAndLongestWaitingGoFirst) {
    // Both were created and notified last at times whose weights decide: 0.33 and 0.67.
    AddTarget(Announced("old file notified lately", "CreateTime = 1000"), 1, "", 2000);
    AddTarget(Announced("young file never notified", "CreateTime = 3000"), 2, "", 0);
    AddTarget(Announced("urgent", "Priority = 500"), 3, "", 5000);
    AddTarget(Announced("not due"), 4, "", std::time(nullptr));
    AddTarget(Announced("changed lately", ChangedAgo(0)), 5, "");
    AddTarget(Announced("unacknowledged", "Acknowledged = 0"), 6, "");
    EXPECT_TRUE(Notify());
    Texts order;
    for (const KelContainer& call : CallsOf("TestConsume"))
        order.push_back(call.GetString("FileName"));
    EXPECT_EQ(order, (Texts{"urgent", "young file never notified", "old file notified lately"}));
    EXPECT_EQ(Targets(), (Texts{"4", "5", "6"}));
}

TEST_F(NotificationTest, BatchHoldsFiftyTargetsOrOneBesideLimitedMulticastOrTheOneThatIsNamed) {
    const std::uint64_t fileId = Announced("n");
    for (unsigned long target = 1; target <= 60; ++target)
        AddTarget(fileId, target, "");
    LimitWindow(FileStore::bmTrackUsageMulticast, "8");
    EXPECT_TRUE(Notify());
    EXPECT_EQ(Count(kDown, "Targets"), "59");
    FileStore::bmTrackUsageMulticast.ClearWindow();
    EXPECT_TRUE(Notify());
    EXPECT_EQ(Count(kDown, "Targets"), "9");
    AddTarget(fileId, 99, "", std::time(nullptr));  // not due
    EXPECT_TRUE(Notify(fileId, 99));
    EXPECT_EQ(Count(kDown, "Targets"), "9");
    EXPECT_FALSE(Notify(fileId, 99));
}

TEST_F(NotificationTest, TargetsThatAreNoChildrenOfOursGetARuleFileNotThePackage) {
    const KelString type = "OperationalRuleAdministratedRelay", path = MakeFile("package", "abc");
    for (const KelString& set :
         {KelString("KeepCopy = 3"), "ExternalFile = 1, FileURL = '/x', FilePath = '" + path + "'"}) {
        const auto trace = Begin(set);
        const TestHttpServer child(TestHttpServer::ActionScript(0));
        AddTarget(Announced("pack", "FileStatus = #NOTRELAYSCHILD#, " + set), 1,
                  child.HostAndPort() + kBehindPort);
        EXPECT_TRUE(Notify());
        const KelContainer call = OnlyCallTo(child, "FileStoreReceiveFile");
        const FileKey key = FileKey::Read(call);
        EXPECT_TRUE(key.name.starts_with(type + "_"));
        const KelString content = Content(FileStore::StorePath(kDown, key));
        EXPECT_EQ(Read(call, "FileType FileLabel FileChecksum KeepCopy FileSize FileURL"),
                  KelFormat("%S|%S|%S|0|%lu|%S", type, type, TextMd5(content), content.size(),
                            filestore::StoredUrl(kDown, key)));
        EXPECT_EQ(Read(FromXml(content), "FileName FileStatus"),
                  KelString("pack|") + filestore::kStatusNotRelaysChild);
        EXPECT_EQ(Content(path), "abc");
    }
}

TEST_F(NotificationTest, HandedOverFilesAreRememberedUntilAModuleHasTakenThem) {
    Fake("TestConsume ()", [](KelContainer& file) {
        if (file.GetString("FileName") == "taken") Ask(kUntaken, Taken("taken"));
        return 44001U;
    });
    for (const char* name : {"taken", "refused", "replaced", "deleted"})
        HandOver(name);
    HandOver("replaced", "FileChecksum = 'd'");
    HandOver("other", "FileStatus = #NOTRELAYSCHILD#");  // a rule file is handed over in its place
    EXPECT_EQ(Count(kDown, "Targets"), "0");
    EXPECT_EQ(Untaken(), (Texts{"refused|c", "replaced|c", "deleted|c", "replaced|d"}));
    EXPECT_EQ(Read(Ask(kUntaken).GetContainer("Values"), "FilePath"),
              FileStore::StorePath(kDown, {"t", "l", "refused", "c"}));

    Ask(kUntaken, Taken("replaced", "d"));
    filestore::DeleteFileRow(kDown, 4);
    CleanUp();
    Initialise();
    EXPECT_EQ(Untaken(), Texts{"refused|c"}) << "what was replaced must not come back";
    Ask(kUntaken, From({}, "127.0.1.9"), kKelErrorNotAvailable);
    Ask(kUntaken, From(Taken("refused"), "127.0.1.9"), kKelErrorNotAvailable);
    EXPECT_EQ(Untaken().size(), 1U);
    {
        const auto refusal = Refuse(kDown, "INSERT ON HandedOver");
        HandOver("new");
        EXPECT_EQ(CallsOf("TestConsume").back().GetString("FileName").find("new"), KelString::npos);
    }
    Notify();
    EXPECT_EQ(CallsOf("TestConsume").back().GetString("FileName"), "new") << "once it can be remembered";
}

}  // namespace

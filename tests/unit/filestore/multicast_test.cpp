#include <algorithm>
#include <deque>
#include <list>

#include "filestore/db/multicast_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/multicast_planner.h"
#include "filestore/down/multicast_thread.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"
#include "filestore/state/waiting_reasons.h"
#include "kelcore/metrics/transfer_counters.h"

namespace {

using Blocks = std::set<std::uint32_t>;

/// A device below: takes announcements with `result`, and tells how far its reception is from its list of
/// answers, of which the last one stays.
struct Device {
    explicit Device(unsigned int announced, std::deque<KelContainer> reports = {})
        : server([=](const TestHttpServer::Request& request) mutable {
              if (!request.target.ends_with("IsCompleted"))
                  return TestHttpServer::ActionResult(request.target.ends_with("ReceiveFile") ? announced
                                                                                              : 0);
              const KelContainer report = reports.front();
              if (reports.size() > 1) reports.pop_front();
              return TestHttpServer::ActionResult(0, report);
          }) {}
    KelString Name() const {
        return server.HostAndPort() +
               "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
    }
    /// How often each action was called, as "StopListen 1".
    std::size_t Calls(const KelString& action) const {
        const auto requests = server.Requests();
        return static_cast<std::size_t>(std::ranges::count_if(
            requests, [&](const auto& request) { return request.target.ends_with(action); }));
    }
    KelContainer Announcement() const { return server.Requests().back().Arguments(); }
    const TestHttpServer server;
};

/// Records what is sent instead of sending it.
struct RecordingThread : FileStoreMulticastThread {
    unsigned int SendPackets(const FileStoreEntry&, const std::set<KelString>&,
                             const Blocks& blocks) override {
        sent.push_back(blocks);
        if (whileSending) whileSending();
        return 0;
    }
    std::function<void()> whileSending;
    KelVector<Blocks> sent;
};

struct MulticastTest : StoreTest {
    MulticastTest() {
        FileStore::ulMulticastMinimumFileSize = 100;
        FileStore::ulMulticastTransferDelay = 60;
        FileStore::ulMulticastMinimumRequests = 2;
        FileStoreMulticastThread::waitBeforeSending = FileStoreMulticastThread::waitAfterSending =
            filestore::MulticastPlanner::waitMilliseconds = 0;
        LimitWindow(FileStore::bmTrackUsageMulticast, "1000");
    }
    /// A file that is due, of twenty blocks, with these devices as its targets.
    std::uint64_t Add(const KelString& name, const KelString& set, const std::list<Device>& devices) {
        const std::uint64_t fileId =
            AddFile(kDown, name, "AVAILABLE",
                    "Acknowledged = 1, CreateTime = 1, FileSize = 19500, MulticastBlockSize = 1000" + set);
        for (const Device& device : devices)
            AddTarget(fileId, ++targets_, device.Name());
        return fileId;
    }
    static KelString State(std::uint64_t fileId) {
        return Fields(kDown, fileId, "MulticastTransferToBeStarted, MulticastRetryNumber");
    }
    static Texts Listeners() {
        return Rows(kDown,
                    "SELECT MulticastAddress, TargetId, Status FROM MulticastListenAddress ORDER BY 2");
    }
    /// The time of each target: "later", "soon" (due again in ten seconds), "now" or a number.
    static Texts Times(std::uint64_t fileId) {
        const std::int64_t now = std::time(nullptr), timeout = FileStore::ulTimeout;
        return Rows(
            kDown,
            KelFormat("SELECT CASE WHEN LastNotifyTime > %ld THEN 'later' WHEN LastNotifyTime BETWEEN "
                      "%ld AND %ld THEN 'soon' ELSE LastNotifyTime END FROM Targets WHERE FileId = %lu "
                      "ORDER BY TargetId",
                      now + 4, now - timeout, now - timeout + 11, fileId));
    }
    static bool IsAddressInUse() {
        const KelLock lock(FileStore::mutexMulticastVector);
        return !FileStore::vecMulticastAddressInUse.empty();
    }
    static KelContainer Report(Values values, const Texts& blocks = {}) {
        KelContainer report = Make(values);
        for (std::size_t i = 0; i < blocks.size(); ++i)
            report.SetString(std::to_string(i), blocks[i]);
        return report;
    }
    const KelContainer complete_ = Report({{"IsCompleted", true}});
    const KelContainer failed_ = Report({{"CommunicationFailed", true}}, {"0-19"});

    Exposed<FileStoreNotifyThread> notify_;
    RecordingThread sender_;
    std::uint64_t targets_ = 0;
};

TEST_F(MulticastTest, PlanIsMadeOrPutOffByWhatTheFileItsTargetsAndTheGroupSay) {
    struct Case {
        const char* name;
        const char* set;
        unsigned int minimum;
        bool isGroupInUse;
        bool planned;
        std::size_t announcements, stops;
        KelString time;  ///< of a device that takes announcements
    };
    const KelString young = KelFormat("%ld", std::time(nullptr) - 5);
    for (const Case& test :
         {Case{"planned", "", 2, false, true, 1, 0, "later"},
          {"too few", "", 5, false, false, 1, 1, "soon"},
          {"group in use", "", 2, true, false, 0, 0, "soon"},
          {"gathering", "", 2, false, false, 0, 0, "soon"},
          {"tried often enough", ", MulticastRetryNumber = 3", 2, false, false, 1, 0, "later"},
          {"small", ", FileSize = 99", 2, false, false, 1, 0, "later"},
          {"being sent", ", MulticastTransferToBeStarted = 2", 2, false, false, 0, 0, "0"}}) {
        const auto trace = Begin(test.name);
        Rows(kDown, "DELETE FROM MulticastListenAddress");
        {
            const KelLock lock(FileStore::mutexMulticastVector);
            FileStore::vecMulticastAddressInUse.clear();
            if (test.isGroupInUse) FileStore::vecMulticastAddressInUse.push_back("224.2.0.0");
        }
        FileStore::ulMulticastMinimumRequests = test.minimum;
        std::list<Device> devices;
        for (const unsigned int result : {0U, 0U, 5U, 0U, 0U})
            devices.emplace_back(result);
        const std::uint64_t fileId = Add("n", test.set, devices);
        if (test.isGroupInUse) Add("other", ", MulticastTransferToBeStarted = 2", {});
        if (test.name == KelString("gathering"))
            Rows(kDown, "UPDATE Targets SET TargetCreateTime = " + young);
        notify_.DoWork();
        // Calls that are not waited for are recorded at a later step.
        while (test.time == "later" && Times(fileId).front() == "0")
            notify_.DoWork();
        const Device& device = devices.front();
        EXPECT_EQ(State(fileId).starts_with("1"), test.planned);
        EXPECT_EQ(Listeners().size(), test.planned ? 4U : 0U);
        EXPECT_EQ(IsAddressInUse(), test.planned || test.isGroupInUse);
        EXPECT_EQ(device.Calls("ReceiveFile"), test.announcements);
        EXPECT_EQ(device.Calls("StopListen"), test.stops);
        const Texts times = Times(fileId);
        EXPECT_EQ(times.front(), test.time);
        EXPECT_EQ(times.at(2), test.time == "later" ? "now" : test.time);
        if (!test.planned) continue;
        EXPECT_EQ(Listeners().front(), "224.2.0.0|" + std::to_string(targets_ - 4) + "|MulticastWaiting");
        EXPECT_EQ(
            Read(device.Announcement(), "MulticastAddress MulticastPort MulticastBlockSize FileURL Bypass"),
            "224.2.0.0|1500|1024|/FileStore/downstream/t/l/c/n|(none)");
    }
}

TEST_F(MulticastTest, GroupOfAFileThatWasRemovedIsFreeAgain) {
    std::list<Device> devices;
    for (int i = 0; i < 2; ++i)
        devices.emplace_back(0U);
    const std::uint64_t removed = Add("removed", "", devices);
    EXPECT_TRUE(notify_.NotifyTargets());
    filestore::DeleteFileRow(kDown, removed);
    const std::uint64_t fileId = Add("n", "", devices);
    EXPECT_TRUE(notify_.NotifyTargets());
    EXPECT_EQ(State(fileId), "1|0");
    EXPECT_EQ(Listeners(), (Texts{"224.2.0.0|3|MulticastWaiting", "224.2.0.0|4|MulticastWaiting"}));
}

TEST_F(MulticastTest, FileWithTooFewTargetsSaysSoAndGoesByUnicastAfterSomeTries) {
    std::list<Device> devices;
    const std::uint64_t fileId = Add("n", "", devices);
    AddTarget(fileId, 1, devices.emplace_back(0U).Name());
    for (std::uint32_t i = 0; i < FileStore::ulMulticastRetry; ++i) {
        EXPECT_FALSE(notify_.NotifyTargets());
        const KelContainer why = Ask("FileStoreExplainFile", Make({{"FileId", std::int64_t(fileId)}}));
        EXPECT_EQ(Read(why.GetContainer("Values"), "Code Message"),
                  "awaiting_requests|too few devices to send it by multicast: 1 of 2");
        Rows(kDown, "UPDATE Targets SET LastNotifyTime = 1");
    }
    EXPECT_TRUE(notify_.NotifyTargets());
    while (Times(fileId) != Texts{"later"})
        notify_.DoWork();
    EXPECT_FALSE(devices.front().Announcement().Has("MulticastAddress"));
}

TEST_F(MulticastTest, SmallFilesGoOutInBatchesBesideLargeOnesThatWait) {
    std::list<Device> devices;
    devices.emplace_back(0U);
    const std::uint64_t large = Add("large", ", Priority = 900", devices);
    Rows(kDown, KelFormat("UPDATE Targets SET TargetCreateTime = %ld", std::time(nullptr)));
    const auto addSmall = [&] {  // at addresses that are dropped at once
        for (int i = 0; i < 49; ++i) {
            const std::uint64_t fileId = Add("small" + std::to_string(targets_), ", FileSize = 1", {});
            AddTarget(fileId, ++targets_, ":1/G");
        }
    };
    addSmall();
    EXPECT_TRUE(notify_.NotifyTargets());
    EXPECT_EQ(Targets(), Texts{"1"});
    EXPECT_EQ(Times(large), Texts{"soon"});
    addSmall();
    CloseWindow(FileStore::bmTrackUsageDown);
    Rows(kDown, "UPDATE Targets SET LastNotifyTime = 1, TargetCreateTime = 1");
    for (const auto& [name, priority] : {std::pair("first", 901), std::pair("last", 1)})
        AddTarget(Add(name, KelFormat(", FileSize = 1, Bypass = 1, Priority = %d", priority), {}), ++targets_,
                  ":1/G");
    ASSERT_TRUE(filestore::MarkDueTargets(2, std::time(nullptr)));
    filestore::DueTargets wanted;
    wanted.due = std::time(nullptr);
    wanted.where = filestore::DueTargets::Where::OtherDevices;
    wanted.windowClosed = true;
    wanted.limit = 3;
    wanted.multicast = filestore::MulticastLimits{2, 9};
    Texts order;
    for (const filestore::FileTarget& row : filestore::SelectDueTargets(wanted))
        order.push_back(row.file.FileName);
    EXPECT_EQ(order, (Texts{"first", "large", "last"}));
    Rows(kDown, "DELETE FROM Targets WHERE FileBypass = 1");
    FileStore::ulMulticastMinimumRequests = 1;
    EXPECT_TRUE(notify_.NotifyTargets());
    EXPECT_EQ(State(large), "1|0") << "its window is open";
    EXPECT_EQ(Targets().size(), 50U) << "the window of the small ones is closed";
    FileStore::bmTrackUsageDown.ClearWindow();
}

TEST_F(MulticastTest, TransferIsRepeatedForWhatIsMissingAndEndsForEveryDevice) {
    const KelContainer gaps = Report({}, {"3-5", "9"}), gap = Report({}, {"7"}),
                       spoilt = Report({{"RestartNeeded", true}}), verifying = Report({}),
                       nonsense = Report({}, {"19-20"});
    const auto& counters = KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Multicast);
    std::uint64_t filesSent = counters.files.Value();
    struct Case {
        const char* name;
        bool differential;
        unsigned int rate;
        std::vector<std::deque<KelContainer>> reports;
        KelVector<Blocks> sent;
        Texts ends;  ///< what every device was asked at the end: "reset", "recovery" or nothing
    };
    for (const Case& test :
         {Case{"gaps", true, 100, {{gaps, complete_}, {gap, complete_}}, {{}, {3, 4, 5, 7, 9}}, {"", ""}},
          {"all again", false, 100, {{gaps, complete_}, {complete_}}, {{}, {}}, {"", ""}},
          {"half is enough",
           true,
           50,
           {{complete_}, {gap}, {complete_}, {gap}},
           {{}},
           {"", "reset", "", "reset"}},
          {"three in all", true, 100, {{gap}, {complete_}}, {{}, {7}, {7}}, {"recovery", ""}},
          {"nothing arrives", true, 100, {{failed_}, {failed_}}, {{}}, {"recovery", "recovery"}},
          {"one hears nothing", true, 100, {{failed_}, {gap, complete_}}, {{}, {7}}, {"recovery", ""}},
          {"spoilt", true, 100, {{spoilt, complete_}, {gap, complete_}}, {{}, {}}, {"", ""}},
          {"verifying", true, 100, {{verifying, complete_}, {verifying, complete_}}, {{}}, {"", ""}},
          {"unknown blocks", true, 100, {{nonsense, complete_}, {gap, complete_}}, {{}, {7}}, {"", ""}}}) {
        const auto trace = Begin(test.name);
        Rows(kDown, "DELETE FROM MulticastListenAddress");
        FileStore::fMulticastDifferencialRetry = test.differential;
        FileStore::ulMulticastMinimumSuccessRate = test.rate;
        FileStore::ulMulticastBlockSize = 1000;
        std::list<Device> devices;
        for (const auto& reports : test.reports)
            devices.emplace_back(0U, reports);
        const std::uint64_t fileId = Add("n", "", devices);
        EXPECT_TRUE(notify_.NotifyTargets());
        sender_.sent.clear();
        EXPECT_TRUE(sender_.SendMulticastData());
        EXPECT_EQ(sender_.sent, test.sent);
        EXPECT_EQ(counters.files.Value(), ++filesSent);
        Texts ends;
        for (const Device& device : devices) {
            const bool isRecovered = device.Calls("ReceiveFile") == 2;
            ends.emplace_back(device.Calls("ResetMulticastStatus") != 0 ? "reset"
                              : isRecovered                             ? "recovery"
                                                                        : "");
            EXPECT_EQ(device.Calls("StopListen"), 1U);
            if (isRecovered) {
                EXPECT_EQ(Read(device.Announcement(), "TransportMode MulticastAddress"), "Multicast|(none)");
            }
        }
        EXPECT_EQ(ends, test.ends);
        EXPECT_EQ(State(fileId), "0|0");
        EXPECT_EQ(Listeners(), Texts{});
        EXPECT_FALSE(IsAddressInUse());
        EXPECT_FALSE(sender_.SendMulticastData());
    }
    FileStore::ulMulticastBlockSize = 1024;
}

TEST_F(MulticastTest, WithdrawnFileIsSentNoMoreAndNotFetchedInAnotherWay) {
    FakeResult("HttpProtocolMulticastStopListen ()", 0);
    for (const bool isKept : {false, true}) {
        const auto trace = Begin(isKept ? "kept" : "forgotten");
        FileStore::ulMulticastMinimumRequests = 1;
        std::list<Device> devices;
        devices.emplace_back(0U, std::deque<KelContainer>{Report({}, {"7"})});
        const Device& device = devices.front();
        const std::uint64_t fileId = Add("n", "", devices);
        ASSERT_TRUE(notify_.NotifyTargets());
        sender_.sent.clear();
        sender_.whileSending = [&] {
            Ask("FileStoreWithdrawFile",
                With(Offer(), {{"DevicePath", TargetTree({device.Name()})}, {"KeepContent", isKept}}));
        };
        EXPECT_TRUE(sender_.SendMulticastData());
        EXPECT_EQ(sender_.sent.size(), 1U);
        EXPECT_EQ(device.Calls("StopListen"), 1U);
        EXPECT_EQ(device.Calls("ResetMulticastStatus") + device.Calls("ReceiveFile"), 1U);
        EXPECT_EQ(State(fileId), isKept ? "0|0" : "(none)");
    }
    EXPECT_TRUE(CallsOf("HttpProtocolMulticastStopListen").empty());
    DeleteRows();
    AddFile(kDown, "n", "MULTICASTLISTENING", "MulticastAddress = '224.2.0.1'");
    Ask("FileStoreWithdrawFile", Offer());
    EXPECT_EQ(OnlyCallOf("HttpProtocolMulticastStopListen").GetString("MulticastAddress"), "224.2.0.1");
}

TEST_F(MulticastTest, WaitsEndOnCancellationAndNotOnASignalAndActivationStartsAgain) {
    std::list<Device> devices;
    for (int i = 0; i < 2; ++i)
        devices.emplace_back(0U, std::deque<KelContainer>{complete_});
    const std::uint64_t fileId = Add("n", "", devices);
    ASSERT_TRUE(notify_.NotifyTargets());
    FileStoreMulticastThread::waitBeforeSending = 3'600'000;
    SetIni("FileStore", "QueueGap", "1");
    ASSERT_TRUE(sender_.Start());
    while (!State(fileId).starts_with("2"))
        std::this_thread::yield();
    for (int i = 0; i < 3; ++i)
        sender_.WakeUp();
    sender_.Cancel(0, true);
    EXPECT_TRUE(sender_.sent.empty());
    EXPECT_EQ(State(fileId), "2|0");
    SetIni("FileStore", "QueueGap", "3600");
    filestore::ResetAllMulticast();
    EXPECT_EQ(State(fileId), "0|0");
    EXPECT_EQ(Listeners(), Texts{});
    EXPECT_EQ(Times(fileId), (Texts{"0", "0"}));
}

}  // namespace

#include "filestore/state/waiting_reasons.h"

#include <gmock/gmock.h>

#include "filestore/down/notify_thread.h"
#include "filestore/down/pull_thread.h"
#include "filestore/module/metrics.h"
#include "filestore/push_fixture.h"
#include "filestore/up/handle_thread.h"
#include "kelcore/metrics/metrics_page.h"

namespace {

using Answer = TestHttpServer::Answer;

struct WaitingReasonsTest : PushTest {
    static KelContainer Explain(Side side, std::uint64_t fileId, Values values = {}) {
        return Ask(
            "FileStoreExplainFile",
            With(Make({{"Upstream", side == kUp}, {"FileId", static_cast<std::int64_t>(fileId)}}), values));
    }
    static KelContainer ReasonOf(Side side, std::uint64_t fileId) {
        return Explain(side, fileId).GetContainer("Reason");
    }
    static void Pull() { FileStore::threadPull.DownloadFile(); }
    static std::uint64_t Wanted(const KelString& set = "FileSize = 5") {
        return AddFile(kDown, "n", "DOWNLOADING", "FileURL = '/f', " + set);
    }
};

TEST_F(WaitingReasonsTest, FailedDownloadSaysWhyHowOftenAndWhenItIsTriedAgain) {
    for (const auto& [answer, code, message] : Table<Answer, KelString, KelString>{
             {{401}, "peer_refused", "refused the credentials"},
             {{404}, "peer_refused", "does not have the content"},
             {{503}, "peer_refused", "HTTP status 503"},
             {{200, "", "other"}, "checksum_wrong", "has a wrong checksum (2 times)"},
             {{200, "", "other", 2}, "cut_off", "broke after 2 bytes"},
             {{0}, "peer_unreachable", "does not answer"}}) {
        const auto trace = Begin(message);
        AnswerAsParent([answer = answer](const TestHttpServer::Request&) { return answer; });
        const std::uint64_t id = Wanted();
        EXPECT_EQ(ReasonOf(kDown, id).GetString("Code"), "announced");
        Pull();
        Set(kDown, id, "LastStatusChangeTime = 0");
        EXPECT_LE(ReasonOf(kDown, id).GetInt64("NextTry"), std::time(nullptr));
        Pull();
        const KelContainer reason = ReasonOf(kDown, id);
        EXPECT_EQ(Read(reason, "Code Count Peer"), code + "|2|" + Parent().HostAndPort());
        EXPECT_THAT(reason.GetString("Message"), testing::HasSubstr(message));
        EXPECT_EQ(reason.GetInt64("NextTry"),
                  Load(kDown, id).LastStatusChangeTime + FileStore::ulPullTimeout);
    }
}

TEST_F(WaitingReasonsTest, RowAloneAndItsSurroundingsGiveTheReasonWhereNoneWasNoted) {
    const auto code = [](Side side, const char* status, const char* set = "Bypass = 0") {
        return ReasonOf(side, AddFile(side, KelFormat("%s %s", status, set), status, set)).GetString("Code");
    };
    EXPECT_EQ(code(kDown, "DOWNLOADING", "LastStatusChangeTime = 5"), "last_try_failed");
    EXPECT_EQ(code(kDown, "MULTICASTLISTENING"), "awaiting_content");
    EXPECT_EQ(code(kDown, "AVAILABLE", "Acknowledged = 1"), "");
    EXPECT_EQ(code(kDown, "AVAILABLE", "Acknowledged = 0"), "not_tried");
    EXPECT_EQ(code(kUp, "TOBEPACKED"), "to_be_packed");
    relayValues = With(relayValues, {{"ParentSync", false}, {"ParentProblem", "gone"}, {"ParentSince", 77}});
    EXPECT_EQ(code(kUp, "UPLOADING"), "parent_unreachable");
    const KelContainer lost = ReasonOf(kDown, Wanted());
    EXPECT_EQ(Read(lost, "Code Message Since"), "parent_unreachable|the parent 127.0.1.1:1: gone|77");
    KelContainer window = Window("0", 2, 167);
    window.SetString("Slots", window.GetString("Slots") + " 9");
    FileStore::bmTrackUsageUp.UpdateTransferWindow(window);  // open in the last hour of the week
    const KelContainer closed = ReasonOf(kDown, Wanted("FileLabel = 'w'"));
    const std::int64_t monday = 4 * 86400, week = 7 * 86400;
    const bool isOpenNow = WeekHour(std::time(nullptr), true) == 167;
    if (!isOpenNow) {
        EXPECT_EQ(closed.GetString("Code"), "window_closed");
        EXPECT_EQ((closed.GetInt64("NextTry") - monday) % week, 167 * 3600);
    }
    EXPECT_EQ(code(kDown, "TOBEREQUESTED", "Bypass = 1"), "parent_unreachable");
    FileStore::bmTrackUsageUp.ClearWindow();
}

TEST_F(WaitingReasonsTest, StepsNoteWhatStoppedThemAndForgetItWhenTheFileMovesOn) {
    AnswerAsParent(0);
    const std::uint64_t requested = AddFile(kDown, "asked", "TOBEREQUESTED");
    Request();
    EXPECT_EQ(ReasonOf(kDown, requested).GetString("Code"), "parent_lacks_file");
    AnswerAsParent(17);
    const std::uint64_t sent = Waiting("sent");
    Send();
    EXPECT_EQ(ReasonOf(kUp, sent).GetString("Code"), "peer_refused");
    AcceptAll();
    Set(kUp, sent, "LastStatusChangeTime = 0");
    Send();
    EXPECT_EQ(ReasonOf(kUp, sent).GetString("Code"), "not_tried");

    const auto consumer = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
    FakeResult("TestConsume ()", kKelAnswerTryLater);
    const std::uint64_t handled = AddStored(kUp, "handled", "TOBEHANDLED");
    FileStoreHandleThread().HandleFile(kUp);
    EXPECT_EQ(ReasonOf(kUp, handled).GetString("Message"), "TestConsume wants it later");

    // The store holds some bytes.
    constexpr std::uint32_t kWholeDisk = 2'000'000'000;
    std::uint64_t large = 0;
    for (const auto& [quota, reserve, size, isFull] :
         Table<std::uint32_t, std::uint32_t, std::int64_t, bool>{{0, 64, 9'000'000'000'000'000'000, true},
                                                                 {0, kWholeDisk, 100, true},
                                                                 {2, 0, 2 << 20, true},
                                                                 {1, 0, 1'000'000, false},
                                                                 {3, 0, 3 << 20, true}}) {
        FileStore::ulStoreQuota = quota;
        FileStore::ulFreeSpaceReserve = reserve;
        if (large != 0) filestore::DeleteFileRow(kDown, large);
        large = Wanted(KelFormat("FileSize = %ld", size));
        Pull();
        EXPECT_EQ(ReasonOf(kDown, large).GetString("Code") == "disk_full", isFull) << size;
        const KelContainer offer = From(Offer("u", TextMd5("x")), "127.0.1.9");
        EXPECT_EQ(Receive(offer, {{"Upstream", true}, {"FileSize", size}, {"SourceDevice", kChild}}),
                  isFull ? kKelErrorNotAvailable : kKelOk);
    }
    FileStore::ulStoreQuota = 0;
    FileStore::ulFreeSpaceReserve = 64;
    EXPECT_EQ(Read(ReasonOf(kDown, large), "Code Size"), "disk_full|3145728");
    // The number is given to another file.
    Set(kDown, large, KelFormat("CreateTime = %ld", std::time(nullptr) + 5));
    EXPECT_NE(ReasonOf(kDown, large).GetString("Code"), "disk_full");
    filestore::DeleteFileRow(kDown, large);
    EXPECT_EQ(filestore::Reasons().GetSpaceShortage().files, 0U);
}

TEST_F(WaitingReasonsTest, MetricsCountTheFilesByStatusAndReason) {
    const auto page = [] {
        KelMetricsPage metrics;
        FileStoreCollectMetrics(metrics);
        return metrics.Text();
    };
    const auto waiting = [](const char* direction, const char* status, const char* reason, int count) {
        return testing::HasSubstr(
            KelFormat("kel_store_waiting_files{direction=\"%s\",status=\"%s\",reason=\"%s\"} %d\n", direction,
                      status, reason, count));
    };
    AnswerAsParent([](const TestHttpServer::Request&) { return Answer{401}; });
    const std::uint64_t failed = Wanted("FileSize = 5, CreateTime = 100");
    Pull();
    AddFile(kDown, "2", "DOWNLOADING");
    AddFile(kDown, "3", "AVAILABLE", "FileSize = 7, Acknowledged = 0");
    const std::uint64_t done = AddFile(kDown, "4", "AVAILABLE", "FileSize = 8, Acknowledged = 1");
    AddFile(kUp, "5", "TOBEUPLOADED");
    AddFile(kUp, "6", "RECEIVING");
    AddTarget(done, 1, kChild);
    EXPECT_THAT(
        page(),
        testing::AllOf(
            waiting("down", "downloading", "peer_refused", 1), waiting("down", "downloading", "announced", 1),
            waiting("down", "available", "not_tried", 1), waiting("up", "to_be_uploaded", "not_tried", 1),
            waiting("up", "receiving", "awaiting_content", 1),
            testing::HasSubstr("kel_store_files{direction=\"down\",status=\"available\"} 2\n"),
            testing::HasSubstr("kel_store_bytes{direction=\"down\",status=\"available\"} 15\n"),
            testing::HasSubstr("kel_store_waiting_targets 1\n")));
    EXPECT_THAT(page(),
                testing::ContainsRegex("kel_store_oldest_waiting_seconds.direction=\"down\". 1[0-9]{9}\n"));
    EXPECT_THAT(page(), testing::Not(testing::HasSubstr("step=\"download\",reason=\"peer_refused\"} 0\n")));
    relayValues = With(relayValues, {{"ParentSync", false}});
    EXPECT_THAT(page(), waiting("up", "to_be_uploaded", "parent_unreachable", 1));
    CloseWindow(FileStore::bmTrackUsageUp);
    EXPECT_THAT(page(), testing::AllOf(waiting("down", "downloading", "window_closed", 2),
                                       waiting("up", "receiving", "awaiting_content", 1),
                                       testing::HasSubstr("kel_window_open{direction=\"up\"} 0\n")));
    // The numbers that the database keeps follow every change.
    Set(kDown, failed, "FileStatus = #AVAILABLE#, FileSize = 100, Acknowledged = 1");
    Rows(kDown, "UPDATE Files SET Acknowledged = 1");
    Rows(kDown, "DELETE FROM Targets");
    filestore::DeleteFileRow(kDown, done);
    for (const Side side : {kDown, kUp})
        EXPECT_EQ(Rows(side, "SELECT FileStatus, COUNT(*), SUM(FileSize) FROM Files GROUP BY FileStatus"),
                  Rows(side, "SELECT FileStatus, Files, Bytes FROM FileCounts WHERE Files > 0"));
    EXPECT_EQ(Cell(kDown, "SELECT SUM(Unacknowledged) FROM FileCounts"), "0");
    EXPECT_EQ(Cell(kDown, "SELECT Targets FROM TargetCount"), "0");
}

TEST_F(WaitingReasonsTest, TargetsBelowAreExplainedByTheRowsOrByTheDevicesThemselves) {
    const KelString tail = "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
    const std::int64_t later = std::time(nullptr) + 1000;
    KelContainer told = Make({{"Known", true}});
    told.SetContainer("Values",
                      Make({{"GUID", "0A1B0000-0000-4000-8000-0000000000C1"}, {"Code", "disk_full"}}));
    for (const auto& [name, answer, notified, code] : Table<const char*, Answer, std::int64_t, const char*>{
             {"fresh", {}, 0, "not_tried"},
             {"told", TestHttpServer::ActionResult(0, told), later, "disk_full"},
             {"ignorant", TestHttpServer::ActionResult(0, Make({{"Known", false}})), later, "unknown_there"},
             {"silent about it", TestHttpServer::ActionResult(0, Make({{"Known", true}})), later,
              "not_asked"},
             {"refusing", {401}, later, "peer_refused"},
             {"gone", {0}, later, "peer_unreachable"}}) {
        const auto trace = Begin(name);
        filestore::Reasons().Clear();
        const TestHttpServer device([answer = answer](const TestHttpServer::Request&) { return answer; });
        const KelString child = device.HostAndPort() + tail;
        const std::uint64_t id = AddFile(kDown, name, "AVAILABLE", "Acknowledged = 1");
        AddTarget(id, 1, child, notified);
        EXPECT_EQ(Explain(kDown, id).GetContainer("Values").GetString("Code"), code);
        // Only the parent may have devices called, and only those below this one.
        const std::size_t calls = device.Requests().size();
        const KelContainer foreign = From(Make({{"FileId", static_cast<std::int64_t>(id)}}), "127.9.9.9");
        EXPECT_EQ(Ask("FileStoreExplainFile", foreign).GetBool("Known"), true);
        EXPECT_EQ(device.Requests().size(), calls);
        Ask("FileStoreExplainFile",
            Make(
                {{"FileId", static_cast<std::int64_t>(id)}, {"DevicePath", Make({{child, KelContainer()}})}}),
            kKelErrorBadInput);
        // A child that has acknowledged has no row: the tree leads to it.
        Rows(kDown, "DELETE FROM Targets");
        const KelContainer answered = Explain(kDown, id, {{"DevicePath", TargetTree({child, kOwnPathName})}});
        EXPECT_EQ(answered.Count("Values"), 2U);
        EXPECT_EQ(answered.GetContainer("Values", 0).GetString("Code"), "arrived") << "this device";
    }
}

TEST_F(WaitingReasonsTest, FailedAnnouncementExplainsAllFilesOfItsDeviceUntilItAnswers) {
    const KelString tail = "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
    unsigned int result = 401;
    const TestHttpServer device([&result](const TestHttpServer::Request&) { return Answer{result}; });
    const std::uint64_t first = AddFile(kDown, "1", "AVAILABLE", "Acknowledged = 1");
    const std::uint64_t second = AddFile(kDown, "2", "AVAILABLE", "Acknowledged = 1");
    AddTarget(first, 1, device.HostAndPort() + tail);
    AddTarget(second, 2, device.HostAndPort() + tail, std::time(nullptr) - 1);
    FileStore::threadNotify.NotifyUnicastTargets(static_cast<unsigned int>(first), 1);
    for (const std::uint64_t id : {first, second})
        EXPECT_EQ(Explain(kDown, id).GetContainer("Values").GetString("Code"), "peer_refused");
    EXPECT_EQ(device.Requests().size(), 1U) << "what is known is not asked again";
    filestore::Reasons().DeviceAnswered(device.HostAndPort() + tail);
    result = 404;
    EXPECT_THAT(Explain(kDown, second).GetContainer("Values").GetString("Message"),
                testing::HasSubstr("older version"));
}

}  // namespace

#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

/// 3000 bytes in which every position looks different, so that an offset error shows.
KelString Pattern() {
    KelString text;
    for (int i = 0; text.size() < 3000; ++i)
        text += std::to_string(i) + ",";
    return text.substr(0, 3000);
}

struct DownloadTest : StoreTest {
    DownloadTest() { AnswerAsParent(TestHttpServer::FileScript(content_)); }
    /// A row to be downloaded whose checksum is that of the content.
    std::uint64_t Wanted(const KelString& name, const KelString& set = "") const {
        const std::uint64_t fileId =
            AddFile(kDown, name, "DOWNLOADING",
                    KelFormat("FileChecksum = '%S', FileSize = 3000, FileURL = '/a b%20#?ü''/%S'",
                              TextMd5(content_), name));
        if (!set.empty()) Set(kDown, fileId, set);
        return fileId;
    }
    void Answer(const TestHttpServer::Answer& answer) {
        AnswerAsParent([answer](const TestHttpServer::Request&) { return answer; });
    }
    static int Step() { return FileStore::threadPull.DownloadFile(); }
    static constexpr const char* kProgress = "FileStatus, LastStatusChangeTime, TransferredBytes";
    static constexpr const char* kOutcome = "FileStatus, LastStatusChangeTime, FileSize";

    const KelString content_ = Pattern(), other_ = KelString(3000, 'x');
};

TEST_F(DownloadTest, WhatIsHereAndWhatTheRowSaysDecideWhatIsAskedFor) {
    const KelString part = content_.substr(0, 1000), recovery = "TransportMode = 'UnicastRecovery'";
    const KelString info =
        "FileType = 'OperationalRuleNetworkPackageInfo', FileChecksum = 'any', FileSize = ";
    const KelString huge = "FileSize = 9223372036854775807", done = "AVAILABLE|0|3000";
    for (const auto& [name, set, here, range, row] :
         Table<const char*, KelString, KelString, const char*, KelString>{
             {"new", "", "", "", done},
             {"partial", "", part, "bytes=1000-", done},
             {"recovery", recovery, part, "", done},
             {"longer", "", content_ + "more", "", done},
             {"package information", info + "0", "", "", done},
             {"changed package information", info + "1000", part, "", done},
             {"complete", "", content_, nullptr, done},
             {"damaged", "", other_, nullptr, "DOWNLOADING|now|3000"},
             {"no space", huge, "", nullptr, "DOWNLOADING|now|9223372036854775807"}}) {
        const auto trace = Begin(name);
        AnswerAsParent(TestHttpServer::FileScript(content_));
        const KelString path = PathOf(kDown, Wanted("n", set));
        if (!here.empty()) WriteFile(path, here);
        FileStore::fCheckAvailableFreeSpaceBeforeDownloading = set == huge;
        EXPECT_EQ(Step(), set == huge ? 0 : 1);
        EXPECT_EQ(OnlyFields(kDown, kOutcome), row);
        EXPECT_EQ(Content(path), row == done ? content_ : "(none)");
        EXPECT_EQ(Parent().Requests().size(), range == nullptr ? 0U : 1U);
        if (range == nullptr) continue;
        EXPECT_EQ(OnlyFields(kDown, "FilePath"), path);
        EXPECT_EQ(Parent().Requests().back().target, "/a%20b%2520%23%3F%C3%BC%27/n");
        EXPECT_EQ(Parent().Requests().back().Header("Range"), range);
        EXPECT_TRUE(FileDelete(path));
    }
}

TEST_F(DownloadTest, OnlyAFileThatIsGoneOrChangedLosesItsPartialContent) {
    for (const auto& [status, left] :
         Table<unsigned int, KelString>{{403, "part"}, {503, "part"}, {404, "(none)"}, {416, "(none)"}}) {
        const auto trace = Begin(std::to_string(status));
        Answer({status, "", "no"});
        const KelString path = PathOf(kDown, Wanted("n"));
        WriteFile(path, "part");
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Content(path) + "|" + OnlyFields(kDown, kOutcome), left + "|DOWNLOADING|now|3000");
    }
}

/// A body that begins to arrive after local content has been put in place is written over it.
TEST_F(DownloadTest, OutcomeOfAFailureDependsOnItsKindAndOnALocalOfferMeanwhile) {
    const KelString part = content_.substr(0, 500);
    for (const auto& [name, answer, row, left, rowOffered] :
         Table<KelString, TestHttpServer::Answer, const char*, KelString, KelString>{
             {"gone", {404, "", "no"}, "DOWNLOADING|now|0", "(none)", "AVAILABLE|1"},
             {"wrong content", {200, "", other_}, "DOWNLOADING|now|0", "(none)", "TOBEREQUESTED|1"},
             {"cut off", {200, "", content_, 500}, "DOWNLOADING|now|500", part, "TOBEREQUESTED|1"},
             {"whole", {200, "", content_}, "AVAILABLE|0|0", content_, "AVAILABLE|1"}}) {
        SCOPED_TRACE(name);
        Answer(answer);
        const std::uint64_t fileId = Wanted(name);
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId, kProgress), row);
        EXPECT_EQ(Content(PathOf(kDown, fileId)), left);
        EXPECT_EQ(Step(), 0) << "tried again before the time-out";

        AnswerAsParent([this, name = name, answer = answer](const TestHttpServer::Request&) {
            Accept(Offer("t", TextMd5(content_)),
                   {{"FileName", name + " offered"}, {"CopyPath", MakeFile("source", content_)}});
            return answer;
        });
        const std::uint64_t offeredId = Wanted(name + " offered");
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, offeredId, "FileStatus, Acknowledged"), rowOffered);
        EXPECT_EQ(Content(PathOf(kDown, offeredId)) == content_, rowOffered == "AVAILABLE|1");
    }
}

TEST_F(DownloadTest, RecoveryOfAMulticastFileBeginsAnewOnlyOnce) {
    const std::uint64_t fileId = Wanted("n", "TransportMode = 'UnicastRecovery'");
    WriteFile(PathOf(kDown, fileId), KelString(1000, '?'));
    Answer({200, "", content_, 500});
    EXPECT_EQ(Step(), 1);
    AnswerAsParent(TestHttpServer::FileScript(content_));
    Set(kDown, fileId, "LastStatusChangeTime = 0");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown), "AVAILABLE");
    EXPECT_EQ(Parent().Requests().back().Header("Range"), "bytes=500-");
}

TEST_F(DownloadTest, SizeThatWasNotAnnouncedIsAskedForAndBoundsTheTransfer) {
    for (const auto& [size, status] :
         Table<std::int64_t, const char*>{{3000, "AVAILABLE"}, {2999, "DOWNLOADING"}}) {
        AnswerAsParent([this, size = size](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
            if (request.method == "GET") return {200, "", content_};
            return TestHttpServer::ActionResult(0, Make({{"FileSize", size}}));
        });
        const std::uint64_t fileId = Wanted(status, "FileSize = 0");
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId), status);
    }
    DeleteRows();
    AnswerAsParent([](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.method == "GET") return {0, "", "HTTP/1.1 200 OK\r\nContent-Length: 1073741825\r\n\r\nx"};
        return TestHttpServer::ActionResult(1);
    });
    Wanted("endless", "FileSize = 0");
    EXPECT_EQ(Step(), 1);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "does not end within"));
}

TEST_F(DownloadTest, TransferMakesWayForAMoreUrgentFileAndGoesOnBehindIt) {
    AnswerAsParent([this](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.target.ends_with("urgent")) return {200, "", content_};
        Wanted("urgent", "Priority = 500");
        return {200, "", content_, 500, true};
    });
    const std::uint64_t fileId = Wanted("slow");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Fields(kDown, fileId, kProgress), "DOWNLOADING|0|500");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Names(kDown, "AVAILABLE"), Texts{"urgent"});
}

TEST_F(DownloadTest, HighestPriorityThenOldestRowGoesFirstAndAWaitingOneIsPassedOver) {
    Wanted("second");
    Wanted("third");
    Wanted("first", "Priority = 500");
    Wanted("failed-lately", "Priority = 900, " + ChangedAgo(FileStore::ulPullTimeout - 20));
    Wanted("failed-long-ago", "Priority = 800, " + ChangedAgo(FileStore::ulPullTimeout + 1));
    while (Step() != 0) {
    }
    EXPECT_EQ(RequestedNames(), (Texts{"failed-long-ago", "first", "second", "third"}));
}

TEST_F(DownloadTest, MulticastOfferIsHandedToTheHttpModule) {
    FakeResult("HttpProtocolMulticastStartListen ()", 0);
    const std::uint64_t fileId =
        Wanted("n", "MulticastAddress = '224.2.0.1', MulticastPort = 1500, MulticastBlockSize = 2048");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown), "MULTICASTLISTENING");
    EXPECT_EQ(Read(OnlyCallOf("HttpProtocolMulticastStartListen"),
                   "MulticastAddress MulticastPort MulticastBlockSize FileSize LocalPath"),
              "224.2.0.1|1500|2048|3000|" + PathOf(kDown, fileId));
    FakeResult("HttpProtocolMulticastStartListen ()", kKelErrorNotAvailable);
    Set(kDown, fileId, "FileStatus = #DOWNLOADING#, TransportMode = 'Multicast'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(
        OnlyFields(kDown, "FileStatus, LastStatusChangeTime, MulticastAddress, MulticastPort, TransportMode"),
        "DOWNLOADING|0||0|Unicast")
        << "what is not received by multicast is downloaded at once";
}

struct AcknowledgeTest : StoreTest {
    static int Step() { return FileStore::threadPull.AcknowledgeFile(); }
};

TEST_F(AcknowledgeTest, ReportsADownloadedFileOnceToItsSender) {
    AnswerAsParent(0);
    AddFile(kDown, "it's", "AVAILABLE");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown, "Acknowledged"), "1");
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Read(OnlyCallTo(Parent(), "FileStoreAcknowledgeFile"),
                   "FileType FileLabel FileName FileChecksum DeviceGUID"),
              KelString("t|l|it's|c|") + kOwnUrl);

    const TestHttpServer source(TestHttpServer::ActionScript(0));
    AddFile(kDown, "n", "AVAILABLE", "SourceDevice = '" + source.HostAndPort() + "/GUID'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(source.Requests().size(), 1U);
}

TEST_F(AcknowledgeTest, RefusedAcknowledgementIsRepeatedAfterTheTimeOut) {
    AnswerAsParent(7);
    AddFile(kDown, "n", "AVAILABLE");
    for (const std::size_t calls : {1U, 2U}) {
        for (int repetition = 0; repetition < 2; ++repetition)
            EXPECT_EQ(Step(), 0);
        EXPECT_EQ(Parent().Requests().size(), calls);
        EXPECT_EQ(OnlyFields(kDown, "Acknowledged"), "0");
        Rows(kDown, "UPDATE Files SET " + ChangedAgo(FileStore::ulPullTimeout + 1));
    }
}

TEST_F(AcknowledgeTest, RuleFileOfAnAdministratedRelayEndsTheWaitForThePackageItNames) {
    AnswerAsParent(0);
    const std::uint64_t rule =
        AddFile(kDown, "rule", "AVAILABLE", "FileType = 'OperationalRuleAdministratedRelay'");
    WriteFile(PathOf(kDown, rule), Make({{"FileName", "pack'age"}, {"FileChecksum", "c"}}).SaveToXML());
    AddFile(kDown, "pack'age", "DOWNLOADING");
    AddFile(kDown, "pack'age", "AVAILABLE", "Acknowledged = 1");
    AddFile(kDown, "other", "DOWNLOADING");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Files(kDown, "FileStatus"), (Texts{"AVAILABLE", "NOTRELAYSCHILD", "AVAILABLE", "DOWNLOADING"}));
    EXPECT_EQ(RequestedNames(), (Texts{"rule", "pack'age"}));
}

TEST_F(AcknowledgeTest, ParentRemovesTheTargetOfThatDeviceAndFileOnlyOrReportsAFailure) {
    const KelString device = "127.0.1.8:1/AAAA-1";
    const auto acknowledge = [](const char* name, const KelString& by, unsigned int result = kKelOk) {
        const KelContainer call = With(Offer(), {{"FileName", name}, {"DeviceGUID", by}});
        EXPECT_TRUE(Ask("FileStoreAcknowledgeFile", call, result).IsEmpty()) << by;
    };
    const std::uint64_t first = AddFile(kDown, "first", "AVAILABLE");
    AddTarget(first, 1, device + "/m/i/n");
    AddTarget(first, 2, "127.0.1.9:1/AAAA-2/m/i/n");
    AddTarget(first, 3, "");
    AddTarget(AddFile(kDown, "second", "AVAILABLE"), 4, device + "/m/i/n");
    {
        const auto refusal = Refuse(kDown, "DELETE ON Targets");
        acknowledge("first", device, kKelErrorInternal);
    }
    acknowledge("first", device);
    acknowledge("unknown", device);
    for (const char* hostile : {"", "h:1", "h:1/%", "h:1/AAAA_2", "h:1/' OR ''='", "h:1//x"})
        acknowledge("first", hostile, kKelErrorBadInput);
    EXPECT_EQ(Targets(), (Texts{"2", "3", "4"}));
}

}  // namespace

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
    std::uint64_t Wanted(const KelString& name, const KelString& set = "KeepCopy = 0") const {
        return AddFile(kDown, name, "DOWNLOADING",
                       KelFormat("FileChecksum = '%S', FileSize = 3000, FileURL = '/a b%20#?ü''/%S', %S",
                                 TextMd5(content_), name, set));
    }
    static int Step() { return FileStore::threadPull.DownloadFile(); }
    static KelString StorePathOf(std::uint64_t fileId) { return PathOf(kDown, Load(kDown, fileId)); }

    const KelString content_ = Pattern(), other_ = KelString(3000, 'x');
};

TEST_F(DownloadTest, ResumesWhereThePartialFileEnds) {
    for (const auto& [name, present, mode, range] : Table<const char*, std::size_t, const char*, const char*>{
             {"new", 0, "Unicast", ""},
             {"partial", 1000, "Unicast", "bytes=1000-"},
             {"recovery", 1000, "UnicastRecovery", ""},
             {"longer", 4000, "Unicast", ""}}) {
        SCOPED_TRACE(name);
        const std::uint64_t fileId = Wanted(name, KelFormat("TransportMode = '%s'", mode));
        const KelString path = StorePathOf(fileId);
        if (present > 0) WriteFile(path, (content_ + content_).substr(0, present));
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId, "FileStatus, LastStatusChangeTime, FilePath"), "AVAILABLE|0|" + path);
        EXPECT_EQ(Content(path), content_);
        EXPECT_EQ(Parent().Requests().back().target, KelString("/a%20b%2520%23%3F%C3%BC%27/") + name);
        EXPECT_EQ(Parent().Requests().back().Header("Range"), range);
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
        AnswerAsParent([answer = answer](const TestHttpServer::Request&) { return answer; });
        const std::uint64_t fileId = Wanted(name);
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId, "FileStatus, LastStatusChangeTime, TransferredBytes"), row);
        EXPECT_EQ(Content(StorePathOf(fileId)), left);
        EXPECT_EQ(Step(), 0) << "tried again before the time-out";

        AnswerAsParent([this, name = name, answer = answer](const TestHttpServer::Request&) {
            Accept(Offer("t", TextMd5(content_)),
                   {{"FileName", name + " offered"}, {"CopyPath", MakeFile("source", content_)}});
            return answer;
        });
        const std::uint64_t offeredId = Wanted(name + " offered");
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, offeredId, "FileStatus, Acknowledged"), rowOffered);
        EXPECT_EQ(Content(StorePathOf(offeredId)) == content_, rowOffered == "AVAILABLE|1");
    }
}

TEST_F(DownloadTest, NetworkPackageInfoIsTakenWithAnyChecksumAndTheSizeItHas) {
    Wanted("n", "FileType = 'OperationalRuleNetworkPackageInfo', FileSize = 0, FileChecksum = 'other'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown, "FileStatus, FileSize"), "AVAILABLE|3000");
}

TEST_F(DownloadTest, CompleteLocalFileIsVerifiedNotDownloaded) {
    for (const auto& [content, status] :
         Table<KelString, const char*>{{content_, "AVAILABLE"}, {other_, "DOWNLOADING"}}) {
        const std::uint64_t fileId = Wanted(status);
        WriteFile(StorePathOf(fileId), content);
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId), status);
        EXPECT_EQ(FileExists(StorePathOf(fileId)), content == content_);
    }
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(DownloadTest, HighestPriorityThenOldestRowGoesFirstAndAWaitingOneIsPassedOver) {
    const std::int64_t timeOut = std::time(nullptr) - FileStore::ulPullTimeout;
    Wanted("second");
    Wanted("third");
    Wanted("first", "Priority = 500");
    Wanted("failed-lately", KelFormat("Priority = 900, LastStatusChangeTime = %ld", timeOut + 20));
    Wanted("failed-long-ago", KelFormat("Priority = 800, LastStatusChangeTime = %ld", timeOut - 1));
    while (Step() != 0) {
    }
    EXPECT_EQ(RequestedNames(), (Texts{"failed-long-ago", "first", "second", "third"}));
}

TEST_F(DownloadTest, NamedSourceDeviceIsAskedInsteadOfTheParent) {
    const TestHttpServer source(TestHttpServer::FileScript(content_));
    Wanted("n", "SourceDevice = '" + source.HostAndPort() + "/0A1B0000-0000-4000-8000-0000000000C1'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown), "AVAILABLE");
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(DownloadTest, MissingSpacePostponesTheFile) {
    FileStore::fCheckAvailableFreeSpaceBeforeDownloading = true;
    Wanted("n", "FileSize = 9223372036854775807");
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(OnlyFields(kDown, "LastStatusChangeTime"), "now");
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(DownloadTest, MulticastOfferIsHandedToTheHttpModule) {
    FakeResult("HttpProtocolMulticastStartListen ()", 0);
    const std::uint64_t fileId =
        Wanted("n", "MulticastAddress = '224.2.0.1', MulticastPort = 1500, MulticastBlockSize = 2048");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(OnlyFields(kDown), "MULTICASTLISTENING");
    EXPECT_EQ(Read(OnlyCallOf("HttpProtocolMulticastStartListen"),
                   "MulticastAddress MulticastPort MulticastBlockSize FileSize LocalPath"),
              "224.2.0.1|1500|2048|3000|" + StorePathOf(fileId));
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
        Rows(kDown, KelFormat("UPDATE Files SET LastStatusChangeTime = %ld",
                              std::time(nullptr) - FileStore::ulPullTimeout - 1));
    }
}

TEST_F(AcknowledgeTest, RuleFileOfAnAdministratedRelayEndsTheWaitForThePackageItNames) {
    AnswerAsParent(0);
    const std::uint64_t rule =
        AddFile(kDown, "rule", "AVAILABLE", "FileType = 'OperationalRuleAdministratedRelay'");
    WriteFile(PathOf(kDown, Load(kDown, rule)),
              Make({{"FileName", "pack'age"}, {"FileChecksum", "c"}}).SaveToXML());
    AddFile(kDown, "pack'age", "DOWNLOADING");
    AddFile(kDown, "pack'age", "AVAILABLE", "Acknowledged = 1");
    AddFile(kDown, "other", "DOWNLOADING");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Rows(kDown, "SELECT FileStatus FROM Files ORDER BY FileId"),
              (Texts{"AVAILABLE", "NOTRELAYSCHILD", "AVAILABLE", "DOWNLOADING"}));
    EXPECT_EQ(RequestedNames(), (Texts{"rule", "pack'age"}));
}

TEST_F(AcknowledgeTest, ParentRemovesTheTargetOfThatDeviceAndFileOnly) {
    const auto acknowledge = [](const KelString& name, const KelString& device, unsigned int result) {
        const KelContainer call = With(Offer(), {{"FileName", name}, {"DeviceGUID", device}});
        EXPECT_TRUE(Ask("FileStoreAcknowledgeFile", call, result).IsEmpty());
    };
    const std::uint64_t first = AddFile(kDown, "first", "AVAILABLE");
    AddTarget(first, 1, "127.0.1.8:1/AAAA-1/m/i/n");
    AddTarget(first, 2, "127.0.1.9:1/AAAA-2/m/i/n");
    AddTarget(first, 3, "");
    AddTarget(AddFile(kDown, "second", "AVAILABLE"), 4, "127.0.1.8:1/AAAA-1/m/i/n");
    acknowledge("first", "127.0.1.8:1/AAAA-1", kKelOk);
    acknowledge("unknown", "127.0.1.8:1/AAAA-1", kKelOk);
    for (const char* hostile : {"", "h:1", "h:1/", "h:1/%", "h:1/AAAA_2", "h:1/' OR ''='", "h:1//x"})
        acknowledge("first", hostile, kKelErrorBadInput);
    EXPECT_EQ(Rows(kDown, "SELECT TargetId FROM Targets ORDER BY TargetId"), (Texts{"2", "3", "4"}));
}

}  // namespace

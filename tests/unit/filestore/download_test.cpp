#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"

using namespace filestore;

namespace {

/// 3000 bytes in which every position looks different, so that an offset error shows.
KelString Pattern() {
    KelString text;
    for (int i = 0; text.size() < 3000; ++i)
        text += std::to_string(i) + ",";
    return text.substr(0, 3000);
}

class DownloadTest : public StepTest {
  protected:
    void SetUp() override {
        StepTest::SetUp();
        AnswerAsParent(ScriptedServer::FileScript(content_));
    }
    /// A row to be downloaded whose checksum is that of the content.
    unsigned long Wanted(const KelString& name, const KelString& set = "KeepCopy = 0") const {
        return AddFile(false, name, kStatusDownloading,
                       KelFormat("FileChecksum = '%S', FileSize = 3000, FileURL = '/a b%20#?ü''/%S', %S",
                                 TextMd5(content_), name, set));
    }
    static int Step() { return FileStore::threadPull.DownloadFile(); }
    static KelString StorePathOf(unsigned long fileId) { return PathOf(false, Load(false, fileId)); }

    const KelString content_ = Pattern();
};

TEST_F(DownloadTest, ResumesWhereThePartialFileEnds) {
    for (const auto& [name, present, mode, range] : Table<const char*, std::size_t, const char*, const char*>{
             {"new", 0, kTransportUnicast, ""},
             {"partial", 1000, kTransportUnicast, "bytes=1000-"},
             {"recovery", 1000, kTransportUnicastRecovery, ""},
             {"longer", 4000, kTransportUnicast, ""}}) {
        SCOPED_TRACE(name);
        const unsigned long fileId = Wanted(name, KelFormat("TransportMode = '%s'", mode));
        const KelString path = StorePathOf(fileId);
        if (present > 0) WriteFile(path, (content_ + content_).substr(0, present));
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(false, fileId, "FileStatus, LastStatusChangeTime, FilePath"),
                  KelFormat("%s|0|%S", kStatusAvailable, path));
        EXPECT_EQ(Content(path), content_);
        EXPECT_EQ(Parent().Requests().back().path, KelString("/a%20b%2520%23%3F%C3%BC%27/") + name);
        EXPECT_EQ(Parent().Requests().back().Header("Range"), range);
    }
}

TEST_F(DownloadTest, OutcomeOfAFailureDependsOnItsKind) {
    for (const auto& [name, answer, left, transferred] :
         Table<const char*, ScriptedServer::Answer, KelString, const char*>{
             {"gone", {404, "", "no"}, "(none)", "0"},
             {"wrong content", {200, "", KelString(3000, 'x')}, "(none)", "0"},
             {"cut off", {200, "", content_, 500}, content_.substr(0, 500), "500"}}) {
        SCOPED_TRACE(name);
        AnswerAsParent([answer = answer](const ScriptedServer::Request&) { return answer; });
        const unsigned long fileId = Wanted(name);
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(StatusOf(false, fileId), kStatusDownloading);
        EXPECT_TRUE(IsNew(false, fileId));
        EXPECT_EQ(Content(StorePathOf(fileId)), left);
        EXPECT_EQ(Fields(false, fileId, "TransferredBytes"), transferred);
        EXPECT_EQ(Step(), 0) << "taken up again before the time-out";
    }
}

/// A body that begins to arrive after the local content has been put in place is written over it.
TEST_F(DownloadTest, FileOfferedHereMeanwhileIsKeptOrAskedForAgainWhenTheAnswerSpoiltIt) {
    for (const auto& [name, answer, row] : Table<const char*, ScriptedServer::Answer, KelString>{
             {"gone", {404, "", "no"}, KelString(kStatusAvailable) + "|1"},
             {"same content", {200, "", content_}, KelString(kStatusAvailable) + "|1"},
             {"wrong content", {200, "", KelString(3000, 'x')}, KelString(kStatusToBeRequested) + "|1"},
             {"cut off", {200, "", content_, 500}, KelString(kStatusToBeRequested) + "|1"}}) {
        SCOPED_TRACE(name);
        const unsigned long fileId = Wanted(name);
        AnswerAsParent([&, answer = answer](const ScriptedServer::Request&) {
            KelContainer offer = Make({{"FileType", "Type"},
                                       {"FileLabel", "Label"},
                                       {"FileName", name},
                                       {"FileChecksum", TextMd5(content_)},
                                       {"CopyPath", MakeFile("source", content_)}});
            EXPECT_EQ(Receive(offer), 0U);
            return answer;
        });
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(false, fileId, "FileStatus, Acknowledged"), row);
        EXPECT_EQ(Content(StorePathOf(fileId)) == content_, row.starts_with(kStatusAvailable));
    }
}

TEST_F(DownloadTest, StepEndsWhileTheDatabaseTakesNothing) {
    for (const auto& [name, failsBefore, requests] :
         Table<const char*, bool, std::size_t>{{"before", true, 0}, {"after", false, 1}}) {
        SCOPED_TRACE(name);
        AnswerAsParent([](const ScriptedServer::Request&) {
            // the second request is one too many: let it end
            const bool again = Cell(Downstream(), "PRAGMA query_only") == "1";
            Rows(Downstream(), KelFormat("PRAGMA query_only=%u", !again));
            return ScriptedServer::Answer{404, "", "no"};
        });
        Wanted(name);
        if (failsBefore) Rows(Downstream(), "PRAGMA query_only=1");
        Exposed<FileStorePullThread>().DoWork();
        Rows(Downstream(), "PRAGMA query_only=0");
        EXPECT_EQ(Parent().Requests().size(), requests);
    }
}

TEST_F(DownloadTest, NetworkPackageInfoIsTakenWithAnyChecksumAndTheSizeItHas) {
    const unsigned long fileId =
        Wanted("n", "FileType = 'OperationalRuleNetworkPackageInfo', FileSize = 0, FileChecksum = 'other'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Fields(false, fileId, "FileStatus, FileSize"), KelString(kStatusAvailable) + "|3000");
}

TEST_F(DownloadTest, CompleteLocalFileIsVerifiedNotDownloaded) {
    const unsigned long good = Wanted("good");
    WriteFile(StorePathOf(good), content_);
    const unsigned long damaged = Wanted("damaged");
    WriteFile(StorePathOf(damaged), KelString(3000, '\0'));
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(StatusOf(false, good), kStatusAvailable);
    EXPECT_EQ(StatusOf(false, damaged), kStatusDownloading);
    EXPECT_FALSE(FileExists(StorePathOf(damaged)));
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
    KelVector<KelString> order;
    for (const ScriptedServer::Request& request : Parent().Requests())
        order.push_back(request.path.substr(request.path.rfind('/') + 1));
    EXPECT_EQ(order, (KelVector<KelString>{"failed-long-ago", "first", "second", "third"}));
}

TEST_F(DownloadTest, ClosedWindowLetsBypassFilesThroughOnly) {
    CloseWindow(FileStore::bmTrackUsageUp);
    Wanted("ordinary");
    Wanted("bypass", "Bypass = 1");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Names(false, kStatusAvailable), KelVector<KelString>{"bypass"});
}

TEST_F(DownloadTest, NamedSourceDeviceIsAskedInsteadOfTheParent) {
    const ScriptedServer source(ScriptedServer::FileScript(content_));
    const unsigned long fileId =
        Wanted("n", "SourceDevice = '" + source.HostAndPort() + "/0A1B0000-0000-4000-8000-0000000000C1'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(StatusOf(false, fileId), kStatusAvailable);
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(DownloadTest, UnknownParentAndMissingSpacePostponeTheFile) {
    const unsigned long orphan = Wanted("orphan");
    relayValues.SetBool("ParentSync", false);
    EXPECT_EQ(Step(), 0);
    EXPECT_TRUE(IsNew(false, orphan));

    relayValues.SetBool("ParentSync", true);
    FileStore::fCheckAvailableFreeSpaceBeforeDownloading = true;
    const unsigned long huge = Wanted("huge", "FileSize = 9223372036854775807");
    EXPECT_EQ(Step(), 0);
    EXPECT_TRUE(IsNew(false, huge));
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(DownloadTest, MulticastOfferIsHandedToTheHttpModule) {
    FakeResult("HttpProtocolMulticastStartListen ()", 0);
    const unsigned long fileId =
        Wanted("n", "MulticastAddress = '224.2.0.1', MulticastPort = 1500, MulticastBlockSize = 2048");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(StatusOf(false, fileId), kStatusMulticastListening);
    EXPECT_EQ(Texts(OnlyCallOf("HttpProtocolMulticastStartListen"),
                    "MulticastAddress MulticastPort MulticastBlockSize FileSize LocalPath"),
              "224.2.0.1|1500|2048|3000|" + StorePathOf(fileId));
}

}  // namespace

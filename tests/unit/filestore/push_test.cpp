#include <utility>

#include "filestore/push_fixture.h"
#include "filestore/state/store_layout.h"

namespace {

using RequestStepTest = PushTest;

TEST_F(RequestStepTest, FailureWaitsForTheRetryInterval) {
    for (const auto& [name, httpStatus, result, schemeUpdates] :
         Table<const char*, unsigned int, unsigned int, std::size_t>{
             {"refused", 200, 1, 0}, {"foreign scheme", 200, 44005, 1}, {"no such action", 404, 0, 1}}) {
        const auto trace = Begin(name);
        TestHttpServer::Answer answer = TestHttpServer::ActionResult(result);
        answer.status = httpStatus;
        AnswerAsParent([answer](const TestHttpServer::Request&) { return answer; });
        AddFile(kDown, name, "TOBEREQUESTED");
        EXPECT_EQ(Request(), Outcome::Failed);
        EXPECT_FALSE(reached_);
        EXPECT_EQ(OnlyFields(kDown, kState), "TOBEREQUESTED|now");
        EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), schemeUpdates);
        EXPECT_EQ(Request(), Outcome::Nothing);
    }
}

TEST_F(RequestStepTest, AnswerDecidesWhatTheRowBecomes) {
    for (const auto& [url, obsolete, given, own, row] :
         Table<const char*, bool, const char*, const char*, const char*>{
             {"/served/it's a b", false, "", "c", "DOWNLOADING|0|c|6|/served/it's a b"},
             {"", true, "", "c", "OBSOLETE|0|c|6|"},
             {"", false, "", "c", "TOBEREQUESTED|now|c|6|"},
             {"http://elsewhere/x", false, "", "c", "TOBEREQUESTED|now|c|6|"},
             {"/u", false, "abc", "", "DOWNLOADING|0|abc|6|/u"},
             {"/u", false, "abc", "c", "DOWNLOADING|0|c|6|/u"},
             {"/u", false, "../x", "", "DOWNLOADING|0||6|/u"}}) {
        const auto trace = Begin(row);
        const KelContainer answer = Make({{"FileURL", url}, {"KeepCopy", 6}, {"FileObsolete", obsolete}});
        AnswerAsParent(0, With(answer, {{"FileChecksum", given}}));
        AddFile(kDown, "n", "TOBEREQUESTED",
                KelFormat("FileChecksum = '%s', Bypass = 1, %S", own, SetInfo(Info())));
        EXPECT_EQ(Request(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, LastStatusChangeTime, FileChecksum, KeepCopy, FileURL"),
                  row);
        const KelContainer asked = OnlyCallTo(Parent(), "FileStoreRequestFile");
        EXPECT_EQ(FileKey::Read(asked), (FileKey{"t", "l", "n", own}));
        EXPECT_EQ(Read(asked, "DeviceGUID Bypass"), KelString(kOwnUrl) + "|true");
        EXPECT_EQ(asked.GetContainer("FileInfo"), Info());
    }
}

/// A parent that does not have a file yet is not asked for it again in the same step.
TEST_F(RequestStepTest, StepAsksOldestFirstAndEndsWhenEveryRowWaits) {
    AnswerAsParent(0);
    for (const auto& [name, age] : Table<const char*, int>{{"recent", 290}, {"second", 400}, {"first", 500}})
        AddFile(kDown, name, "TOBEREQUESTED", ChangedAgo(age));
    push_.DoWork();
    EXPECT_EQ(RequestedNames(), (Texts{"first", "second"}));
}

struct SendTest : PushTest {
    SendTest() { AcceptAll(); }
    static std::uint64_t Announced(const KelString& name, const KelString& set = "Bypass = 0") {
        return AddStored(kUp, name, "UPLOADING",
                         KelFormat("FileURL = '/FileStore/upstream/a b#''ü/%S', %S", name, set));
    }
};

TEST_F(SendTest, OfferCarriesTheRecordAndTakesTheUrl) {
    Waiting("it's", "FirstRelay = 'relay', KeepCopy = 3, Priority = 7, Bypass = 1, " + SetInfo(Info()));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_TRUE(reached_);
    EXPECT_EQ(OnlyFields(kUp, "FileStatus, FileURL, LastStatusChangeTime"),
              "UPLOADING|/FileStore/upstream/it's|0");
    const KelContainer offer = OnlyCallTo(Parent(), "FileStoreReceiveFile");
    EXPECT_EQ(Read(offer,
                   "FileType FileLabel FileName FileChecksum SourceDevice FirstRelay Upstream Bypass "
                   "KeepCopy FileSize Priority"),
              KelFormat("t|l|it's|c|%s|relay|true|true|3|4|7", kChild));
    EXPECT_EQ(offer.GetContainer("FileInfo"), Info());
}

TEST_F(SendTest, RefusalDependsOnTheFirstRelayAndTheError) {
    for (const auto& [name, relay, error, refused, source, second] :
         Table<const char*, const char*, unsigned int, const char*, const char*, const char*>{
             {"own, foreign scheme", "", 44005, "TOBEUPLOADED|now", kOwnUrl, "UPLOADING|0"},
             {"own, refused", "", 1, "TOBEUPLOADED|now", kOwnUrl, "TOBEUPLOADED|0"},
             {"relayed, foreign scheme", "r", 44005, "AVAILABLE|0", kChild, "UPLOADING|0"},
             {"relayed, refused", "r", 1, "TOBEUPLOADED|now", kChild, "TOBEUPLOADED|0"},
             {"accepted without a URL", "r", 0, "TOBEUPLOADED|now", kChild, "TOBEUPLOADED|0"}}) {
        const auto trace = Begin(name);
        AnswerAsParent([error = error](const TestHttpServer::Request& request) {
            const bool isFirst = request.Arguments().GetString("FileName") == "first";
            return TestHttpServer::ActionResult(isFirst ? error : 0,
                                                Make({{"FileURL", isFirst ? "" : "/u"}}));
        });
        Waiting("first", KelFormat("FirstRelay = '%s'", relay));
        Waiting("second");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Files(kUp, "FileStatus, LastStatusChangeTime, SourceDevice"),
                  (Texts{KelFormat("%s|%s", refused, source), KelFormat("%s|%s", second, kChild)}));
    }
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
}

TEST_F(SendTest, RecentRowEndsTheBatchBehindTheOlderOnes) {
    Waiting("recent", ChangedAgo(200));
    Waiting("old", ChangedAgo(400));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(RequestedNames(), Texts{"old"});
}

TEST_F(SendTest, PutsTheContentFromWhereItLiesUnderTheParentsUrl) {
    const KelString outside = "ExternalFile = 1, FilePath = '" + Root() + "/outside'";
    for (const KelString& set : {KelString("Bypass = 0"), KelString("Bypass = 1"), outside}) {
        const auto trace = Begin(set);
        Announced("n", set);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(OnlyFields(kUp), "AVAILABLE");
        EXPECT_EQ(Content(OnlyRow(kUp).FilePath), "n");
        EXPECT_EQ(Parent().Requests().back().target, "/FileStore/upstream/a%20b%23%27%C3%BC/n");
        EXPECT_EQ(Parent().Requests().back().body, "n");
        EXPECT_EQ(Upload(), Outcome::Nothing);
    }
}

TEST_F(SendTest, FailedPutKeepsTheWholeBatchAndStandsBehindTheOthers) {
    AnswerAsParent([](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        return {request.target.ends_with("second") ? 507U : 201U};
    });
    for (const char* name : {"first", "second", "third"})
        Announced(name);
    EXPECT_EQ(Upload(), Outcome::Failed);
    EXPECT_EQ(Files(kUp, kState), (Texts{"UPLOADING|0", "UPLOADING|now", "UPLOADING|0"}));
    EXPECT_EQ(RequestedNames(), (Texts{"first", "second"}));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning,
                          "second failed: " + Parent().HostAndPort() + ": it answers with HTTP status 507"));
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Files(kUp, kState), (Texts{"AVAILABLE|0", "UPLOADING|now", "AVAILABLE|0"}));
}

/// The second try asks what the parent holds, and a file that was under way at the start is asked for at
/// once.
TEST_F(SendTest, AnInterruptedUploadGoesOnBehindWhatTheParentHolds) {
    constexpr std::size_t kSize = 100'000;
    std::size_t asked = 2;  // once more at the start
    for (const auto& [held, range, left] : Table<const char*, const char*, std::size_t>{
             {"", "", kSize},
             {"Upload-Offset: 0\r\n", "", kSize},
             {"Upload-Offset: x\r\n", "", kSize},
             {"Upload-Offset: 70000\r\n", "bytes 70000-99999/100000", 30'000},
             {"Upload-Offset: 100000\r\n", "bytes 99999-99999/100000", 1}}) {
        const auto trace = Begin(held);
        int puts = 0;
        AnswerAsParent(
            [&puts, held = held](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
                if (request.method == "HEAD") return {.status = 404, .headers = held};
                return {.status = puts++ == 0 ? 0U : 201U};
            });
        const KelString large = KelFormat("FileSize = %lu", kSize);
        const std::uint64_t interrupted = Announced("first", large);
        KelString content(kSize, 'a');
        content.back() = 'z';
        WriteFile(Load(kUp, interrupted).FilePath, content);
        EXPECT_EQ(Upload(), Outcome::Failed);
        Set(kUp, interrupted, "LastStatusChangeTime = 0");
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(RequestedNames("HEAD").size(), std::exchange(asked, 1U));
        const auto requests = Parent().Requests();
        EXPECT_EQ(requests.back().Header("Content-Range"), range);
        EXPECT_TRUE(requests.back().body == content.substr(kSize - left));
        Announced("later", large);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(Parent().Requests().size(), requests.size() + 1) << "the first try asks nothing";
    }
}

TEST_F(SendTest, RefusedUploadIsOfferedAgainOrSentAgain) {
    const KelString outside = Root() + "/outside";
    for (const auto& [name, httpStatus, set, isChanged, status] :
         Table<KelString, unsigned int, KelString, bool, KelString>{
             {"offer unknown", 404, "FirstRelay = 'r'", false, "TOBEUPLOADED"},
             {"damaged on the way", 422, "FirstRelay = ''", false, "UPLOADING"},
             {"changed here", 422, "FirstRelay = ''", true, "TOBEHANDLED"},
             {"changed outside", 422, "ExternalFile = 1, FilePath = '" + outside + "'", true, "TOBEHANDLED"},
             {"damaged copy of another's file", 422, "FirstRelay = 'r'", true, "UPLOADING"}}) {
        const auto trace = Begin(name);
        AnswerAsParent([code = httpStatus](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
            return {.status = request.target.ends_with("bad") ? code : 201U};
        });
        const std::uint64_t refused =
            AddStored(kUp, name, "UPLOADING",
                      KelFormat("FileURL = '/bad', FileChecksum = '%S', %S", TextMd5(name), set));
        if (isChanged) WriteFile(Load(kUp, refused).FilePath, "changed");
        const std::uint64_t good = AddStored(kUp, "good", "UPLOADING", "FileURL = '/good'");
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(Fields(kUp, good), "AVAILABLE") << "a refused file holds up no other";
        Rows(kUp, "DELETE FROM Files WHERE FileName = 'good'");
        EXPECT_EQ(OnlyFields(kUp, "FileStatus, FileChecksum"),
                  status + "|" + TextMd5(status == "TOBEHANDLED" ? "changed" : name));
        EXPECT_TRUE(FileExists(filestore::ContentPath(OnlyRow(kUp), kUp)));
    }
}

TEST_F(SendTest, StepAnnouncesAndPutsEverythingThatWaitsAndDropsRowsOfAbsentFiles) {
    EXPECT_TRUE(FileDelete(Load(kUp, Announced("absent")).FilePath));
    for (int i = 0; i < 60; ++i)
        Waiting(std::to_string(i));
    for (int step = 0; step < 2; ++step)  // the first looks for what an earlier run has announced
        push_.DoWork();
    EXPECT_EQ(Names(kUp, "AVAILABLE").size(), 60U);
    EXPECT_EQ(Count(kUp), "60");
    EXPECT_EQ(RequestedNames("POST").size(), 60U);
    EXPECT_EQ(RequestedNames("PUT").size(), 60U);
}

}  // namespace

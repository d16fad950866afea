#include "filestore/push_fixture.h"
#include "filestore/up/handle_thread.h"

namespace {

using RequestStepTest = PushTest;

TEST_F(RequestStepTest, FailureWaitsForTheRetryInterval) {
    for (const auto& [name, httpStatus, result, schemeUpdates] :
         Table<const char*, unsigned int, unsigned int, std::size_t>{
             {"refused", 200, 1, 0}, {"foreign scheme", 200, 44005, 1}, {"no such action", 404, 0, 1}}) {
        SCOPED_TRACE(name);
        ScriptedServer::Answer answer = ScriptedServer::ActionResult(result);
        answer.status = httpStatus;
        AnswerAsParent([answer](const ScriptedServer::Request&) { return answer; });
        const std::uint64_t fileId = AddFile(kDown, name, "TOBEREQUESTED");
        EXPECT_EQ(Request(), Outcome::Failed);
        EXPECT_FALSE(reached_);
        EXPECT_EQ(Fields(kDown, fileId), "TOBEREQUESTED");
        EXPECT_TRUE(IsNew(kDown, fileId));
        EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), schemeUpdates);
        EXPECT_EQ(Request(), Outcome::Nothing);
    }
}

TEST_F(RequestStepTest, AnswerDecidesWhatTheRowBecomes) {
    for (const auto& [name, url, obsolete, given, own, row] :
         Table<const char*, const char*, bool, const char*, const char*, const char*>{
             {"url", "/served/it's a b", false, "", "c", "DOWNLOADING|c|6|/served/it's a b"},
             {"obsolete", "", true, "", "c", "OBSOLETE|c|6|"},
             {"not yet", "", false, "", "c", "TOBEREQUESTED|c|6|"},
             {"url of another kind", "http://elsewhere/x", false, "", "c", "TOBEREQUESTED|c|6|"},
             {"checksum learnt", "/u", false, "abc", "", "DOWNLOADING|abc|6|/u"},
             {"checksum kept", "/u", false, "abc", "c", "DOWNLOADING|c|6|/u"},
             {"hostile checksum", "/u", false, "../x", "", "DOWNLOADING||6|/u"}}) {
        SCOPED_TRACE(name);
        AnswerAsParent(
            0,
            Make({{"FileURL", url}, {"KeepCopy", 6}, {"FileChecksum", given}, {"FileObsolete", obsolete}}));
        const std::uint64_t fileId =
            AddFile(kDown, name, "TOBEREQUESTED",
                    KelFormat("FileChecksum = '%s', Bypass = 1, %S", own, SetInfo(Info())));
        EXPECT_EQ(Request(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(Fields(kDown, fileId, "FileStatus, FileChecksum, KeepCopy, FileURL"), row);
        EXPECT_EQ(IsNew(kDown, fileId), KelString(row).starts_with("TOBEREQUESTED"));
        const KelContainer asked = OnlyCallTo(Parent(), "FileStoreRequestFile");
        EXPECT_EQ(Read(asked, "FileType FileLabel FileName FileChecksum DeviceGUID Bypass"),
                  KelFormat("t|l|%s|%s|%s|true", name, own, kOwnUrl));
        EXPECT_EQ(asked.GetContainer("FileInfo"), Info());
    }
}

/// A parent that does not have a file yet is not asked for it again in the same step.
TEST_F(RequestStepTest, StepAsksOldestFirstAndEndsWhenEveryRowWaits) {
    AnswerAsParent(0);
    for (const auto& [name, age] : Table<const char*, int>{{"recent", 290}, {"second", 400}, {"first", 500}})
        AddFile(kDown, name, "TOBEREQUESTED",
                KelFormat("LastStatusChangeTime = %ld", std::time(nullptr) - age));
    push_.DoWork();
    EXPECT_EQ(OfferedNames(), (Texts{"first", "second"}));
}

class SendTest : public PushTest {
  protected:
    static std::uint64_t Announced(const KelString& name, const KelString& set = "Bypass = 0") {
        return AddStored(kUp, name, "UPLOADING",
                         KelFormat("FileURL = '/FileStore/upstream/a b#''ü/%S', %S", name, set));
    }
};

TEST_F(SendTest, OfferCarriesTheRecordAndTakesTheUrl) {
    AcceptAll();
    const std::uint64_t fileId =
        Waiting("it's", "FirstRelay = 'relay', KeepCopy = 3, Priority = 7, Bypass = 1, " + SetInfo(Info()));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_TRUE(reached_);
    EXPECT_EQ(Fields(kUp, fileId, "FileStatus, FileURL, LastStatusChangeTime"),
              "UPLOADING|/FileStore/upstream/it's|0");
    const KelContainer offer = OnlyCallTo(Parent(), "FileStoreReceiveFile");
    EXPECT_EQ(Read(offer,
                   "FileType FileLabel FileName FileChecksum SourceDevice FirstRelay Upstream Bypass "
                   "KeepCopy FileSize Priority"),
              KelFormat("t|l|it's|c|%s|relay|true|true|3|4|7", kChild));
    EXPECT_EQ(offer.GetContainer("FileInfo"), Info());
}

TEST_F(SendTest, RefusalDependsOnTheFirstRelayAndTheError) {
    for (const auto& [name, firstRelay, error, status, source, second] :
         Table<const char*, const char*, unsigned int, const char*, const char*, const char*>{
             {"own file, foreign scheme", "", 44005, "TOBEUPLOADED", kOwnUrl, "UPLOADING"},
             {"own file, refused", "", 1, "TOBEUPLOADED", kOwnUrl, "TOBEUPLOADED"},
             {"relayed file, foreign scheme", "r", 44005, "AVAILABLE", kChild, "UPLOADING"},
             {"relayed file, refused", "r", 1, "TOBEUPLOADED", kChild, "TOBEUPLOADED"},
             {"accepted without a URL", "r", 0, "TOBEUPLOADED", kChild, "TOBEUPLOADED"}}) {
        const auto trace = Begin(name);
        AnswerAsParent([error = error](const ScriptedServer::Request& request) {
            const bool isFirst = request.Arguments().GetString("FileName") == "first";
            return ScriptedServer::ActionResult(isFirst ? error : 0,
                                                Make({{"FileURL", isFirst ? "" : "/u"}}));
        });
        const std::uint64_t first = Waiting("first", KelFormat("FirstRelay = '%s'", firstRelay));
        const std::uint64_t next = Waiting("second");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Fields(kUp, first, "FileStatus, SourceDevice"), KelFormat("%s|%s", status, source));
        EXPECT_EQ(IsNew(kUp, first), KelString(status) == "TOBEUPLOADED");
        EXPECT_EQ(Fields(kUp, next), second);
    }
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
}

TEST_F(SendTest, RecentRowEndsTheBatchBehindTheOlderOnes) {
    AcceptAll();
    Waiting("recent", "LastStatusChangeTime = " + std::to_string(std::time(nullptr) - 200));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_FALSE(reached_);
    Waiting("old", "LastStatusChangeTime = " + std::to_string(std::time(nullptr) - 400));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(OfferedNames(), Texts{"old"});
}

TEST_F(SendTest, PutsTheContentUnderTheParentsUrl) {
    AcceptAll();
    for (const KelString name : {"0", "1"}) {
        const std::uint64_t fileId = Announced(name, "Bypass = " + name);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(Fields(kUp, fileId), "AVAILABLE");
        EXPECT_EQ(Parent().Requests().back().path, "/FileStore/upstream/a%20b%23%27%C3%BC/" + name);
        EXPECT_EQ(Parent().Requests().back().body, name);
    }
    EXPECT_EQ(Upload(), Outcome::Nothing);
}

TEST_F(SendTest, ExternalFileTravelsFromWhereItLies) {
    AcceptAll();
    const KelString outside = Root() + "/outside";
    AddStored(kUp, "e", "TOBEHANDLED", "ExternalFile = 1, FilePath = '" + outside + "'");
    EXPECT_TRUE(FileStore::threadHandler.HandleFile(kUp));
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Parent().Requests().back().body, "e");
    EXPECT_TRUE(FileExists(outside));
}

TEST_F(SendTest, AbsentFilesLoseTheirRows) {
    AcceptAll();
    for (const char* name : {"a", "b"})
        EXPECT_TRUE(FileDelete(Load(kUp, Announced(name)).FilePath));
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Count(kUp), "0");
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(SendTest, FailedPutKeepsTheWholeBatchAndStandsBehindTheOthers) {
    AnswerAsParent([](const ScriptedServer::Request& request) -> ScriptedServer::Answer {
        return {request.path.ends_with("second") ? 507U : 201U};
    });
    const std::uint64_t first = Announced("first"), second = Announced("second");
    Announced("third");
    EXPECT_EQ(Upload(), Outcome::Failed);
    EXPECT_EQ(Names(kUp, "UPLOADING"), (Texts{"first", "second", "third"}));
    EXPECT_FALSE(IsNew(kUp, first));
    EXPECT_TRUE(IsNew(kUp, second));
    EXPECT_EQ(Parent().Requests().size(), 2U);

    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "AVAILABLE"), (Texts{"first", "third"}));
    EXPECT_EQ(Names(kUp, "UPLOADING"), Texts{"second"});
}

TEST_F(SendTest, StepAnnouncesAndPutsEverythingThatWaits) {
    AcceptAll();
    for (int i = 0; i < 60; ++i)
        Waiting(KelFormat("file%d", i));
    push_.DoWork();  // begins with what an earlier run had announced: nothing
    push_.DoWork();
    EXPECT_EQ(Names(kUp, "AVAILABLE").size(), 60U);
    EXPECT_EQ(OfferedNames().size(), 60U);
    EXPECT_EQ(Parent().Requests().size(), 120U) << "an offer and a PUT each";
}

}  // namespace

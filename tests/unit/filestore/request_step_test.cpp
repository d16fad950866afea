#include "filestore/transfer_fixture.h"
#include "kel/format.h"

using namespace filestore;

namespace {

using RequestStepTest = PushTest;

TEST_F(RequestStepTest, AsksNobodyWithoutARowOrAGuid) {
    AcceptAll();
    EXPECT_EQ(Request(), Outcome::Nothing);

    const unsigned long fileId = AddFile(false, "n", kStatusToBeRequested);
    identityValues.SetString("GUID", "");
    FileStore::strOurGUID.clear();
    EXPECT_EQ(Request(), Outcome::Nothing);
    EXPECT_EQ(Load(false, fileId).LastStatusChangeTime, 0);
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(RequestStepTest, FailureWaitsForTheRetryInterval) {
    struct Case {
        const char* name;
        bool inSync;
        unsigned int httpStatus, result;
        std::size_t schemeUpdates;  ///< so far
    };
    for (const Case& test :
         {Case{"no parent", false, 200, 0, 0}, Case{"refused", true, 200, 1, 0},
          Case{"foreign scheme", true, 200, 44005, 1}, Case{"no such action", true, 404, 0, 1}}) {
        SCOPED_TRACE(test.name);
        AnswerAsParent([&](const ScriptedServer::Request&) {
            ScriptedServer::Answer answer = ScriptedServer::ActionResult(test.result);
            answer.status = test.httpStatus;
            return answer;
        });
        relayValues.SetBool("ParentSync", test.inSync);
        const unsigned long fileId = AddFile(false, test.name, kStatusToBeRequested);
        EXPECT_EQ(Request(), Outcome::Failed);
        EXPECT_FALSE(reached_);
        EXPECT_EQ(StatusOf(false, fileId), kStatusToBeRequested);
        EXPECT_TRUE(IsNew(false, fileId));
        EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), test.schemeUpdates);
        EXPECT_EQ(Request(), Outcome::Nothing);
    }
}

TEST_F(RequestStepTest, AnswerDecidesWhatTheRowBecomes) {
    for (const auto& [name, url, obsolete, given, own, status, checksum] :
         Table<const char*, KelString, bool, const char*, const char*, const char*, const char*>{
             {"url", "/served/it's a b", false, "", "c", kStatusDownloading, "c"},
             {"obsolete", "", true, "", "c", kStatusObsolete, "c"},
             {"not yet", "", false, "", "c", kStatusToBeRequested, "c"},
             {"url of another kind", "http://elsewhere/x", false, "", "c", kStatusToBeRequested, "c"},
             {"checksum learnt", "/u", false, "abc", "", kStatusDownloading, "abc"},
             {"checksum kept", "/u", false, "abc", "c", kStatusDownloading, "c"},
             {"hostile checksum", "/u", false, "../x", "", kStatusDownloading, ""}}) {
        SCOPED_TRACE(name);
        AnswerAsParent(
            0,
            Make({{"FileURL", url}, {"KeepCopy", 6}, {"FileChecksum", given}, {"FileObsolete", obsolete}}));
        const unsigned long fileId =
            AddFile(false, name, kStatusToBeRequested,
                    KelFormat("FileChecksum = '%s', Bypass = 1, %S", own, SetInfo(Info())));
        EXPECT_EQ(Request(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(Fields(false, fileId, "FileStatus, FileChecksum, KeepCopy, FileURL"),
                  KelFormat("%s|%s|6|%S", status, checksum, url.starts_with("/") ? url : KelString()));
        EXPECT_EQ(IsNew(false, fileId), status == KelString(kStatusToBeRequested));
        const KelContainer asked = OnlyCallTo(Parent(), "FileStoreRequestFile");
        EXPECT_EQ(Texts(asked, "FileType FileLabel FileName FileChecksum DeviceGUID Bypass"),
                  KelFormat("Type|Label|%s|%s|%s|true", name, own, kOwnUrl));
        EXPECT_EQ(asked.GetContainer("FileInfo"), Info());
    }
}

TEST_F(RequestStepTest, RowThatWasTakenFurtherMeanwhileStaysAsItIs) {
    for (const unsigned int result : {0U, 1U}) {
        unsigned long fileId = 0;
        AnswerAsParent([&](const ScriptedServer::Request&) {
            Set(false, fileId, KelFormat("FileStatus = '%s', FileURL = '/announced'", kStatusDownloading));
            return ScriptedServer::ActionResult(result);
        });
        fileId = AddFile(false, KelFormat("n%u", result), kStatusToBeRequested);
        Request();
        EXPECT_EQ(Fields(false, fileId, "FileStatus, FileURL, LastStatusChangeTime"),
                  KelString(kStatusDownloading) + "|/announced|0");
    }
}

/// A parent that does not have a file yet is not asked for it again in the same step.
TEST_F(RequestStepTest, StepAsksOldestFirstAndEndsWhenEveryRowWaits) {
    AnswerAsParent(0);
    for (const auto& [name, age] : Table<const char*, int>{{"recent", 290}, {"second", 400}, {"first", 500}})
        AddFile(false, name, kStatusToBeRequested,
                KelFormat("LastStatusChangeTime = %ld", std::time(nullptr) - age));
    push_.DoWork();
    EXPECT_EQ(OfferedNames(), (KelVector<KelString>{"first", "second"}));
}

}  // namespace

#include <ctime>

#include "filestore/upstream_fixture.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class RequestStepTest : public UpstreamTest {
  protected:
    static unsigned long Wanted(const KelString& name,
                                const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddFile(false, name, kStatusToBeRequested, change);
    }
    Outcome Request() {
        reached_ = false;
        return push_.RequestFile(reached_);
    }

    Push push_;
    bool reached_ = false;
};

TEST_F(RequestStepTest, AsksNobodyWithoutARowOrAGuid) {
    AcceptAll();
    EXPECT_EQ(Request(), Outcome::Nothing);

    const unsigned long fileId = Wanted("n");
    identityValues.SetString("GUID", "");
    FileStore::strOurGUID.clear();
    EXPECT_EQ(Request(), Outcome::Nothing);
    EXPECT_TRUE(
        HasLogged(KelDebugLevel::Print, "PushThread: Do not have a GUID yet so will not send request"));
    EXPECT_EQ(Load(false, fileId).LastStatusChangeTime, 0);
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(RequestStepTest, FailureWaitsForTheRetryInterval) {
    struct Case {
        const char* name;
        bool inSync;
        unsigned int httpStatus;
        unsigned int result;
        std::size_t schemeUpdates;
    };
    std::size_t schemeUpdates = 0;
    for (const Case& test :
         {Case{"no parent", false, 200, 0, 0}, Case{"refused", true, 200, 1, 0},
          Case{"foreign scheme", true, 200, 44005, 1}, Case{"no such action", true, 404, 0, 0}}) {
        SCOPED_TRACE(test.name);
        AnswerAsParent([&](const ScriptedServer::Request&) {
            ScriptedServer::Answer answer = ScriptedServer::ActionResult(test.result);
            answer.status = test.httpStatus;
            return answer;
        });
        relayValues.SetBool("ParentSync", test.inSync);
        const unsigned long fileId = Wanted(test.name);
        EXPECT_EQ(Request(), Outcome::Failed);
        EXPECT_FALSE(reached_);
        EXPECT_EQ(StatusOf(false, fileId), kStatusToBeRequested);
        EXPECT_TRUE(JustNow(Load(false, fileId).LastStatusChangeTime));
        schemeUpdates += test.schemeUpdates;
        EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), schemeUpdates);
        EXPECT_EQ(Request(), Outcome::Nothing);
    }
}

TEST_F(RequestStepTest, AnswerDecidesWhatTheRowBecomes) {
    struct Case {
        const char* name;
        const char* url;
        bool obsolete;
        const char* givenChecksum;
        const char* ownChecksum;
        const char* status;
        const char* checksum;
    };
    for (const Case& test :
         {Case{"url", "/served/it's a b", false, "", "c", kStatusDownloading, "c"},
          Case{"obsolete", "", true, "", "c", kStatusObsolete, "c"},
          Case{"not yet", "", false, "", "c", kStatusToBeRequested, "c"},
          Case{"url of another kind", "http://elsewhere/x", false, "", "c", kStatusToBeRequested, "c"},
          Case{"checksum learnt", "/u", false, "abc", "", kStatusDownloading, "abc"},
          Case{"checksum kept", "/u", false, "abc", "c", kStatusDownloading, "c"},
          Case{"hostile checksum", "/u", false, "../x", "", kStatusDownloading, ""}}) {
        SCOPED_TRACE(test.name);
        AnswerAsParent([&](const ScriptedServer::Request&) {
            KelContainer answer;
            answer.SetString("FileURL", test.url);
            answer.SetInt32("KeepCopy", 6);
            if (test.obsolete) answer.SetBool("FileObsolete", true);
            if (*test.givenChecksum != '\0') answer.SetString("FileChecksum", test.givenChecksum);
            return ScriptedServer::ActionResult(0, answer);
        });
        KelContainer info;
        info.SetString("Fact", "it's");
        const unsigned long fileId = Wanted(test.name, [&](FileStoreEntry& entry) {
            entry.FileChecksum = test.ownChecksum;
            entry.FileInfo = info.SaveToXML();
            entry.Bypass = true;
        });
        EXPECT_EQ(Request(), Outcome::Done);
        EXPECT_TRUE(reached_);
        const FileStoreEntry row = Load(false, fileId);
        EXPECT_EQ(row.FileStatus, test.status);
        EXPECT_EQ(row.FileChecksum, test.checksum);
        EXPECT_EQ(row.KeepCopy, 6U);
        EXPECT_EQ(row.FileURL, *test.url == '/' ? test.url : "");
        if (row.FileStatus == kStatusToBeRequested)
            EXPECT_TRUE(JustNow(row.LastStatusChangeTime));
        else
            EXPECT_EQ(row.LastStatusChangeTime, 0);
        ASSERT_EQ(Parent().Requests().size(), 1U);
        EXPECT_EQ(Parent().Requests()[0].path, "/Action/FileStoreRequestFile");
        const KelContainer asked = Parent().Requests()[0].Arguments();
        EXPECT_EQ(asked.GetString("DeviceGUID"), kOwnUrl);
        EXPECT_EQ(asked.GetContainer("FileInfo"), info);
        EXPECT_TRUE(asked.GetBool("Bypass"));
    }
}

TEST_F(RequestStepTest, AsksOldestFirstAndOnlyAfterTheInterval) {
    AnswerAsParent([](const ScriptedServer::Request&) { return ScriptedServer::ActionResult(0); });
    const std::int64_t now = std::time(nullptr);
    for (const auto& [name, age] : {std::pair{"recent", 290}, {"second", 400}, {"first", 500}})
        Wanted(name, [now, age = age](FileStoreEntry& entry) { entry.LastStatusChangeTime = now - age; });
    EXPECT_EQ(Request(), Outcome::Done);
    EXPECT_EQ(Request(), Outcome::Done);
    EXPECT_EQ(Request(), Outcome::Nothing);
    EXPECT_EQ(OfferedNames(), (KelVector<KelString>{"first", "second"}));
}

/// A parent that does not have the file yet is not asked again in the same step.
TEST_F(RequestStepTest, StepEndsWhenEveryRowWaits) {
    AnswerAsParent([](const ScriptedServer::Request&) { return ScriptedServer::ActionResult(0); });
    Wanted("a");
    Wanted("b");
    push_.DoWork();
    EXPECT_EQ(Parent().Requests().size(), 2U);
}

}  // namespace

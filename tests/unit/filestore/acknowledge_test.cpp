#include "filestore/transfer_fixture.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class AcknowledgeTest : public StepTest {
  protected:
    static int Step() { return FileStore::threadPull.AcknowledgeFile(); }
    static unsigned long Received(const KelString& name, const KelString& set = "KeepCopy = 0") {
        return AddFile(false, name, kStatusAvailable, set);
    }
    static KelString Acknowledged(unsigned long fileId) { return Fields(false, fileId, "Acknowledged"); }
};

TEST_F(AcknowledgeTest, ReportsADownloadedFileOnceToItsSender) {
    AnswerAsParent(0);
    const unsigned long fileId = Received("n'1");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Acknowledged(fileId), "1");
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Texts(OnlyCallTo(Parent(), "FileStoreAcknowledgeFile"),
                    "FileType FileLabel FileName FileChecksum DeviceGUID"),
              KelString("Type|Label|n'1|0123456789abcdef0123456789abcdef|") + kOwnUrl);

    const ScriptedServer source(ScriptedServer::ActionScript(0));
    Received("n2", "SourceDevice = '" + source.HostAndPort() + "/GUID'");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(source.Requests().size(), 1U);
}

TEST_F(AcknowledgeTest, RefusedAcknowledgementIsRepeatedAfterTheTimeOut) {
    AnswerAsParent(7);
    const unsigned long fileId = Received("n");
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Parent().Requests().size(), 1U) << "repeated at once";
    Set(false, fileId,
        KelFormat("LastStatusChangeTime = %ld", std::time(nullptr) - FileStore::ulPullTimeout - 1));
    EXPECT_EQ(Step(), 0);
    EXPECT_EQ(Parent().Requests().size(), 2U);
    EXPECT_EQ(Acknowledged(fileId), "0");
}

TEST_F(AcknowledgeTest, StepEndsWhileTheDatabaseTakesNothing) {
    AnswerAsParent([](const ScriptedServer::Request&) {
        const bool again = Cell(Downstream(), "PRAGMA query_only") == "1";
        Rows(Downstream(), KelFormat("PRAGMA query_only=%u", !again));
        return ScriptedServer::ActionResult(0);
    });
    Received("n");
    Exposed<FileStorePullThread>().DoWork();
    Rows(Downstream(), "PRAGMA query_only=0");
    EXPECT_EQ(Parent().Requests().size(), 1U);
}

TEST_F(AcknowledgeTest, RowThatChangedDuringTheCallStaysChanged) {
    for (const unsigned int result : {0U, 7U}) {
        unsigned long fileId = 0;
        AnswerAsParent([&](const ScriptedServer::Request&) {
            Set(false, fileId, KelFormat("FileStatus = '%s'", kStatusToBeRequested));
            return ScriptedServer::ActionResult(result);
        });
        fileId = Received(KelFormat("n%u", result));
        Step();
        EXPECT_EQ(Fields(false, fileId, "FileStatus, Acknowledged"), KelString(kStatusToBeRequested) + "|0");
    }
}

TEST_F(AcknowledgeTest, DeviceWithoutGuidAcknowledgesNothing) {
    AnswerAsParent(0);
    identityValues.SetString("GUID", "");
    Received("n");
    EXPECT_EQ(Step(), 0);
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(AcknowledgeTest, RuleFileOfAnAdministratedRelaySettlesThePackageItNames) {
    AnswerAsParent(0);
    const unsigned long rule = Received("rule", "FileType = 'OperationalRuleAdministratedRelay'");
    WriteFile(PathOf(false, Load(false, rule)),
              Make({{"FileName", "pack'age"}, {"FileChecksum", "p1"}}).SaveToXML());
    const unsigned long waiting = AddFile(false, "pack'age", kStatusDownloading, "FileChecksum = 'p1'");
    const unsigned long here = Received("pack'age", "FileChecksum = 'p1', Acknowledged = 1");
    const unsigned long other = AddFile(false, "other", kStatusDownloading, "FileChecksum = 'p1'");

    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(StatusOf(false, waiting), kStatusNotRelaysChild);
    EXPECT_EQ(StatusOf(false, here), kStatusAvailable);
    EXPECT_EQ(StatusOf(false, other), kStatusDownloading);
    ASSERT_EQ(Parent().Requests().size(), 2U);
    EXPECT_EQ(Texts(Parent().Requests()[1].Arguments(), "FileType FileName"), "Type|pack'age");
}

TEST_F(AcknowledgeTest, ParentRemovesTheTargetOfThatDeviceAndFileOnly) {
    const auto acknowledge = [](const KelString& name, const KelString& device) {
        KelContainer call = Make({{"FileType", "Type"},
                                  {"FileLabel", "Label"},
                                  {"FileName", name},
                                  {"FileChecksum", "0123456789abcdef0123456789abcdef"},
                                  {"DeviceGUID", device}});
        const unsigned int result = FileStore::ActionHandler_FileStoreAcknowledgeFile(&call);
        EXPECT_TRUE(call.IsEmpty());
        return result;
    };
    const unsigned long first = Received("first");
    AddTarget(first, 1, "127.0.1.8:1/AAAA-1/m/i/n");
    AddTarget(first, 2, "127.0.1.9:1/AAAA-2/m/i/n");
    AddTarget(first, 3, "");
    AddTarget(Received("second"), 4, "127.0.1.8:1/AAAA-1/m/i/n");
    EXPECT_EQ(acknowledge("first", "127.0.1.8:1/AAAA-1"), 0U);
    EXPECT_EQ(acknowledge("unknown", "127.0.1.8:1/AAAA-1"), 0U);
    EXPECT_EQ(Rows(Downstream(), "SELECT TargetId FROM Targets ORDER BY TargetId"),
              (KelVector<KelString>{"2", "3", "4"}));
    for (const char* hostile : {"", "h:1", "h:1/", "h:1/%", "h:1/AAAA_2", "h:1/' OR ''='", "h:1//x"}) {
        EXPECT_EQ(acknowledge("first", hostile), 1U) << hostile;
        EXPECT_EQ(Count(Downstream(), "Targets"), "3") << hostile;
    }
}

}  // namespace

#include <ctime>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"

using namespace filestore;

namespace {

class AcknowledgeTest : public TransferTest {
  protected:
    static constexpr const char* kChecksum = "0123456789abcdef0123456789abcdef";

    static unsigned int Acknowledge(const KelString& name, const KelString& device) {
        KelContainer call;
        call.SetString("FileType", "Type");
        call.SetString("FileLabel", "Label");
        call.SetString("FileName", name);
        call.SetString("FileChecksum", kChecksum);
        call.SetString("DeviceGUID", device);
        const unsigned int result = FileStore::ActionHandler_FileStoreAcknowledgeFile(&call);
        EXPECT_TRUE(call.IsEmpty());
        return result;
    }
    static KelString Acknowledged(unsigned long fileId) {
        return Cell(Downstream(), "SELECT Acknowledged FROM Files WHERE FileId = " + std::to_string(fileId));
    }
};

TEST_F(AcknowledgeTest, ReportsADownloadedFileOnceToItsSender) {
    ScriptedServer parent([](const auto&) { return ScriptedServer::ActionResult(0); });
    SetParent("127.0.1.1", parent.Port());
    const unsigned long fileId = AddFile(false, "n'1", kStatusAvailable);
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 1);
    EXPECT_EQ(Acknowledged(fileId), "1");
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 0);
    ASSERT_EQ(parent.Requests().size(), 1U);
    EXPECT_EQ(parent.Requests()[0].path, "/Action/FileStoreAcknowledgeFile");
    const KelContainer call = parent.Requests()[0].Arguments();
    EXPECT_EQ(call.GetString("FileName"), "n'1");
    EXPECT_EQ(call.GetString("DeviceGUID"), kOwnUrl);

    ScriptedServer source([](const auto&) { return ScriptedServer::ActionResult(0); });
    AddFile(false, "n2", kStatusAvailable,
            [&](FileStoreEntry& entry) { entry.SourceDevice = source.HostAndPort() + "/GUID"; });
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 1);
    EXPECT_EQ(source.Requests().size(), 1U);
}

TEST_F(AcknowledgeTest, RefusedAcknowledgementIsRepeatedAfterTheTimeOut) {
    ScriptedServer parent([](const auto&) { return ScriptedServer::ActionResult(7); });
    SetParent("127.0.1.1", parent.Port());
    const unsigned long fileId = AddFile(false, "n", kStatusAvailable);
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 0);
    EXPECT_TRUE(
        HasLogged(KelDebugLevel::Error, "PullThread: Failed to call FileStoreAcknowledgeFile, error 7"));
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 0);
    EXPECT_EQ(parent.Requests().size(), 1U) << "repeated at once";
    Rows(Downstream(), "UPDATE Files SET LastStatusChangeTime = " +
                           std::to_string(std::time(nullptr) - FileStore::ulPullTimeout - 1));
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 0);
    EXPECT_EQ(parent.Requests().size(), 2U);
    EXPECT_EQ(Acknowledged(fileId), "0");
}

TEST_F(AcknowledgeTest, DeviceWithoutGuidAcknowledgesNothing) {
    identityValues.SetString("GUID", "");
    const unsigned long fileId = AddFile(false, "n", kStatusAvailable);
    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 0);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Print, "Do not have a GUID yet"));
    EXPECT_EQ(Acknowledged(fileId), "0");
}

TEST_F(AcknowledgeTest, RuleFileOfAnAdministratedRelaySettlesThePackageItNames) {
    ScriptedServer parent([](const auto&) { return ScriptedServer::ActionResult(0); });
    SetParent("127.0.1.1", parent.Port());
    const KelString type = "OperationalRuleAdministratedRelay";
    KelContainer rule;
    rule.SetString("FileName", "pack'age");
    rule.SetString("FileChecksum", "p1");
    WriteFile(FileStore::StorePath(false, type, "Label", kChecksum, "rule"), rule.SaveToXML());
    AddFile(false, "rule", kStatusAvailable, [&](FileStoreEntry& entry) { entry.FileType = type; });
    const auto package = [](FileStoreEntry& entry) { entry.FileChecksum = "p1"; };
    const unsigned long waiting = AddFile(false, "pack'age", kStatusDownloading, package);
    const unsigned long here = AddFile(false, "pack'age", kStatusAvailable, [&](FileStoreEntry& entry) {
        package(entry);
        entry.Acknowledged = true;
    });
    const unsigned long other = AddFile(false, "other", kStatusDownloading, package);

    EXPECT_EQ(FileStore::threadPull.AcknowledgeFile(), 1);
    const auto status = [](unsigned long fileId) {
        return Cell(Downstream(), "SELECT FileStatus FROM Files WHERE FileId = " + std::to_string(fileId));
    };
    EXPECT_EQ(status(waiting), kStatusNotRelaysChild);
    EXPECT_EQ(status(here), kStatusAvailable);
    EXPECT_EQ(status(other), kStatusDownloading);
    ASSERT_EQ(parent.Requests().size(), 2U);
    EXPECT_EQ(parent.Requests()[1].Arguments().GetString("FileName"), "pack'age");
    EXPECT_EQ(parent.Requests()[1].Arguments().GetString("FileType"), "Type");
}

TEST_F(AcknowledgeTest, ParentRemovesTheTargetOfThatDeviceAndFileOnly) {
    const unsigned long first = AddFile(false, "first", kStatusAvailable);
    const unsigned long second = AddFile(false, "second", kStatusAvailable);
    AddTarget(first, 1, "127.0.1.8:1/AAAA-1/m/i/n");
    AddTarget(first, 2, "127.0.1.9:1/AAAA-2/m/i/n");
    AddTarget(first, 3, "");
    AddTarget(second, 4, "127.0.1.8:1/AAAA-1/m/i/n");
    EXPECT_EQ(Acknowledge("first", "127.0.1.8:1/AAAA-1"), 0U);
    EXPECT_EQ(Acknowledge("unknown", "127.0.1.8:1/AAAA-1"), 0U);
    EXPECT_EQ(Rows(Downstream(), "SELECT TargetId FROM Targets ORDER BY TargetId"),
              (KelVector<KelString>{"2", "3", "4"}));
    for (const char* hostile : {"", "h:1", "h:1/", "h:1/%", "h:1/AAAA_2", "h:1/' OR ''='", "h:1//x"}) {
        EXPECT_EQ(Acknowledge("first", hostile), 1U) << hostile;
        EXPECT_EQ(Count(Downstream(), "Targets"), "3") << hostile;
    }
}

}  // namespace

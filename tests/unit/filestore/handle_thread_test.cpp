#include "filestore/upstream_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class HandleThreadTest : public UpstreamTest {
  protected:
    struct Handler : FileStoreHandleThread {
        using FileStoreHandleThread::DoWork;
    };

    /// A consumer that answers with the number that a file's name begins with.
    void ConsumeByName(const KelString& event) {
        Fake("TestConsume ()", [](KelContainer& arguments) {
            return static_cast<unsigned int>(
                std::strtoul(arguments.GetString("FileName").c_str(), nullptr, 10));
        });
        consumer_ = std::make_unique<Consumer>(event, "TestConsume ()");
    }
    /// A file to be handled, of either database, with content.
    static unsigned long Arrived(bool upstream, const KelString& name,
                                 const std::function<void(FileStoreEntry&)>& change = {}) {
        const unsigned long fileId = AddFile(upstream, name, kStatusToBeHandled, change);
        WriteFile(PathOf(upstream, Load(upstream, fileId)), name);
        return fileId;
    }
    void TearDown() override { consumer_.reset(); }

    Handler handler_;
    std::unique_ptr<Consumer> consumer_;
};

TEST_F(HandleThreadTest, AnswerDecidesWhereAFileGoes) {
    struct Case {
        bool upstream;
        const char* name;
        const char* status;
    };
    for (const Case& test : {Case{true, "44001", kStatusToBeHandled}, Case{true, "44003", kStatusAvailable},
                             Case{true, "0", kStatusToBeUploaded}, Case{true, "18", kStatusToBeUploaded},
                             Case{false, "44001", kStatusToBeHandled}, Case{false, "44003", kStatusAvailable},
                             Case{false, "0", kStatusAvailable}}) {
        SCOPED_TRACE(KelFormat("%s upstream %u", test.name, test.upstream));
        Rows(test.upstream ? Upstream() : Downstream(), "DELETE FROM Files");
        ConsumeByName(test.upstream ? "FileStoreCallbackCopyUpstream" : "FileStoreCallbackReceivedFile");
        const unsigned long mixed = Arrived(test.upstream, test.name);
        const unsigned long other = Arrived(test.upstream, "44003 too");
        EXPECT_TRUE(handler_.HandleFile(test.upstream));
        EXPECT_EQ(StatusOf(test.upstream, mixed), test.status);
        EXPECT_EQ(JustNow(Load(test.upstream, mixed).LastStatusChangeTime),
                  KelString(test.status) == kStatusToBeHandled);
        EXPECT_EQ(StatusOf(test.upstream, other), kStatusAvailable);
        TearDown();
    }
}

TEST_F(HandleThreadTest, ConsumerGetsTheFileWithItsPath) {
    KelContainer info;
    info.SetString("Fact", "it's");
    ConsumeByName("FileStoreCallbackCopyUpstream");
    const unsigned long fileId = Arrived(true, "0", [&](FileStoreEntry& entry) {
        entry.SourceDevice = kChild;
        entry.FirstRelay = "r";
        entry.Priority = 9;
        entry.FileInfo = info.SaveToXML();
    });
    EXPECT_TRUE(handler_.HandleFile(true));
    ASSERT_EQ(CallsOf("TestConsume").size(), 1U);
    const KelContainer call = CallsOf("TestConsume")[0];
    EXPECT_EQ(call.GetString("FilePath"), PathOf(true, Load(true, fileId)));
    EXPECT_EQ(call.GetString("SourceDevice"), kChild);
    EXPECT_EQ(call.GetString("FirstRelay"), "r");
    EXPECT_EQ(call.GetContainer("FileInfo"), info);
    EXPECT_TRUE(call.GetBool("Upstream"));
    EXPECT_EQ(call.GetInt32("Priority"), 9);
}

/// This device is a target of a downstream file as long as no target row with an empty name says otherwise.
TEST_F(HandleThreadTest, LocalTargetRowMakesADownstreamFileACopyOnly) {
    ConsumeByName("FileStoreCallbackCopyDownstream");
    const unsigned long fileId = Arrived(false, "0");
    AddTarget(fileId, 1, "");
    EXPECT_TRUE(handler_.HandleFile(false));
    EXPECT_EQ(CallsOf("TestConsume").size(), 1U);
}

TEST_F(HandleThreadTest, AbsentFileIsDropped) {
    ConsumeByName("FileStoreCallbackCopyUpstream");
    const unsigned long absent = AddFile(true, "absent", kStatusToBeHandled);
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(StatusOf(true, absent), "(none)");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "HandleThread: File Type/Label/absent is not present"));
    EXPECT_TRUE(CallsOf("TestConsume").empty());
}

TEST_F(HandleThreadTest, StepTakesBatchAfterBatchAndEndsWhenConsumersAreNotReady) {
    ConsumeByName("FileStoreCallbackCopyUpstream");
    for (int i = 0; i < 120; ++i)
        Arrived(true, KelFormat("0 %d", i));
    const unsigned long later = Arrived(true, "44001");
    handler_.DoWork();
    EXPECT_EQ(Rows(Upstream(), "SELECT FileStatus, COUNT(*) FROM Files GROUP BY FileStatus ORDER BY 2"),
              (KelVector<KelString>{KelString(kStatusToBeHandled) + "|1",
                                    KelString(kStatusToBeUploaded) + "|120"}));
    EXPECT_EQ(Load(true, later).FileStatus, kStatusToBeHandled);
}

TEST_F(HandleThreadTest, MissingFileIsOfferedToTheModulesFirst) {
    struct Case {
        const char* name;
        unsigned int answer;
        bool console;
        bool goesOn;
        const char* status;
        bool complains;
    };
    const Case cases[] = {{"will provide", 15, false, true, kStatusNotRelaysChild, false},
                          {"nobody has it", 0, false, true, kStatusToBeRequested, false},
                          {"will provide, master", 15, true, true, kStatusNotRelaysChild, false},
                          {"known request, master", 16154, true, false, "(none)", false},
                          {"nobody has it, master", 0, true, false, "(none)", true}};
    for (const Case& test : cases) {
        if (test.console) BecomeMaster();
        for (const bool upstream : {false, true}) {
            SCOPED_TRACE(KelFormat("%s upstream %u", test.name, upstream));
            ClearLog();
            FakeResult("TestSupply ()", test.answer);
            const Consumer consumer("FileStoreCallbackFileRequest", "TestSupply ()");
            const unsigned long fileId = AddFile(upstream, test.name, kStatusMissing);
            if (!upstream) AddTarget(fileId, fileId, kChild);
            EXPECT_EQ(handler_.LocalRequestFile(upstream), test.goesOn);
            EXPECT_EQ(StatusOf(upstream, fileId), test.status);
            if (test.answer == 15) {
                EXPECT_TRUE(Load(upstream, fileId).Acknowledged);
            }
            if (!upstream) {
                EXPECT_EQ(Count(Downstream(), KelFormat("Targets WHERE FileId = %lu", fileId)),
                          test.goesOn ? "1" : "0");
            }
            EXPECT_EQ(HasLogged(KelDebugLevel::Error,
                                "HandleThread: File request for non-existant file, deleting request"),
                      test.complains);
        }
    }
    EXPECT_FALSE(handler_.LocalRequestFile(false));
}

TEST_F(HandleThreadTest, PackageOfAnAdministratedRelayIsPublishedHere) {
    FakeResult("RelayReceiveFile ()", 0);
    KelContainer info;
    info.SetString("AdministratedRelayGUID", kGuid);
    info.SetInt32("AdministratedRelayID", 12);
    const auto arrive = [&] {
        return Arrived(true, "package", [&](FileStoreEntry& entry) {
            entry.FileType = "PackagerZIPPackage";
            entry.FileChecksum = TextMd5("package");
            entry.SourceDevice = kChild;
            entry.FileInfo = info.SaveToXML();
        });
    };
    const unsigned long fileId = arrive();
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(StatusOf(true, fileId), "(none)");
    const FileStoreEntry package = OnlyRow(false);
    EXPECT_EQ(package.FileType, "OperationalRulePackage");
    EXPECT_EQ(package.FileStatus, kStatusAvailable);
    EXPECT_EQ(package.KeepCopy, static_cast<std::uint32_t>(FileStore::eKeepCopyMask));
    EXPECT_EQ(package.FilePath, PathOf(false, package));
    EXPECT_EQ(Content(package.FilePath), "package");
    ASSERT_EQ(CallsOf("RelayReceiveFile").size(), 1U);
    const KelContainer told = CallsOf("RelayReceiveFile")[0];
    EXPECT_EQ(told.GetString("FilePath"), package.FilePath);
    EXPECT_EQ(told.GetString("SourceDevice"), kChild);
    EXPECT_EQ(told.GetContainer("FileInfo"), info);
    EXPECT_TRUE(told.GetBool("Upstream"));

    const FileStoreEntry offered = OnlyRow(true);
    EXPECT_EQ(offered.FileType, "PackagerAdministratedPackage");
    EXPECT_EQ(offered.FileStatus, kStatusToBeHandled);
    EXPECT_EQ(Content(offered.FilePath), "package");
    KelContainer offeredInfo;
    ASSERT_TRUE(static_cast<bool>(offeredInfo.LoadFromXML(offered.FileInfo)));
    EXPECT_EQ(offeredInfo.GetInt32("SendingToMaster"), 1);
    EXPECT_EQ(offeredInfo.GetInt32("AdministratedRelayID"), 12);

    // What goes on to the master is not published a second time, and a repetition finds the row.
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(OnlyRow(true).FileStatus, kStatusToBeUploaded);
    arrive();
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(OnlyRow(false).FileId, package.FileId);
}

TEST_F(HandleThreadTest, PackageThatCannotBeMovedWaits) {
    KelContainer info;
    info.SetString("AdministratedRelayGUID", kGuid);
    const unsigned long fileId = AddFile(true, "gone", kStatusToBeHandled,
                                         [&](FileStoreEntry& entry) { entry.FileInfo = info.SaveToXML(); });
    handler_.DoWork();
    EXPECT_EQ(StatusOf(true, fileId), kStatusToBeHandled);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "HandleThread: Could not move File"));
}

}  // namespace

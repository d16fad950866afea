#include <atomic>

#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class HandleThreadTest : public StepTest {
  protected:
    /// The consumers answer with the number that a file's name begins with.
    void SetUp() override {
        StepTest::SetUp();
        Fake("TestConsume ()", [](KelContainer& call) {
            return static_cast<unsigned int>(std::atoi(call.GetString("FileName").c_str()));
        });
    }
    static unsigned long Arrived(bool upstream, const KelString& name, const KelString& set = "") {
        return AddStored(upstream, name, kStatusToBeHandled, set);
    }

    /// A package that a relay administrated by this device has sent.
    static unsigned long ArrivedPackage(const KelContainer& info = Make({{"AdministratedRelayGUID",
                                                                          kGuid}})) {
        return Arrived(true, "package",
                       KelFormat("FileType = 'PackagerZIPPackage', FileChecksum = '%S', %S",
                                 TextMd5("package"), SetInfo(info)));
    }

    Exposed<FileStoreHandleThread> handler_;
    const std::shared_ptr<void> consumer_ = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
};

TEST_F(HandleThreadTest, AnswerDecidesWhereAFileGoes) {
    const auto receiver = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    for (const auto& [upstream, name, status] :
         Table<bool, const char*, const char*>{{true, "44001", kStatusToBeHandled},
                                               {true, "44003", kStatusAvailable},
                                               {true, "0", kStatusToBeUploaded},
                                               {true, "18", kStatusToBeUploaded},
                                               {false, "44001", kStatusToBeHandled},
                                               {false, "44003", kStatusAvailable},
                                               {false, "0", kStatusAvailable}}) {
        SCOPED_TRACE(KelFormat("%s upstream %u", name, upstream));
        DeleteRows();
        const unsigned long answered = Arrived(upstream, name);
        const unsigned long other = Arrived(upstream, "44003 too");
        EXPECT_TRUE(handler_.HandleFile(upstream));
        EXPECT_EQ(StatusOf(upstream, answered), status);
        EXPECT_EQ(IsNew(upstream, answered), KelString(status) == kStatusToBeHandled);
        EXPECT_EQ(StatusOf(upstream, other), kStatusAvailable);
    }
}

TEST_F(HandleThreadTest, ConsumerGetsTheFileWithItsPath) {
    const unsigned long fileId = Arrived(true, "0", "FirstRelay = 'r', Priority = 9, " + SetInfo(Info()));
    EXPECT_TRUE(handler_.HandleFile(true));
    const KelContainer call = OnlyCallOf("TestConsume");
    EXPECT_EQ(Texts(call, "FilePath SourceDevice FirstRelay Upstream Priority"),
              KelFormat("%S|%s|r|true|9", Load(true, fileId).FilePath, kChild));
    EXPECT_EQ(call.GetContainer("FileInfo"), Info());
}

/// This device is a target of a downstream file as long as no target row with an empty name says otherwise.
TEST_F(HandleThreadTest, LocalTargetRowMakesADownstreamFileACopyOnly) {
    const auto copier = Consume("FileStoreCallbackCopyDownstream", "TestConsume ()");
    AddTarget(Arrived(false, "0"), 1, "");
    EXPECT_TRUE(handler_.HandleFile(false));
    EXPECT_EQ(CallsOf("TestConsume").size(), 1U);
}

TEST_F(HandleThreadTest, AbsentFileIsDroppedAndAbsentPackageWaits) {
    AddFile(true, "file", kStatusToBeHandled);
    AddFile(true, "package", kStatusToBeHandled, SetInfo(Make({{"AdministratedRelayGUID", kGuid}})));
    handler_.DoWork();
    EXPECT_EQ(Names(true), KelVector<KelString>{"package"});
    EXPECT_EQ(Names(true, kStatusToBeHandled), KelVector<KelString>{"package"});
    EXPECT_TRUE(CallsOf("TestConsume").empty());
}

TEST_F(HandleThreadTest, StepTakesBatchAfterBatchAndEndsWhenConsumersAreNotReady) {
    for (int i = 0; i < 120; ++i)
        Arrived(true, KelFormat("0 %d", i));
    Arrived(true, "44001");
    handler_.DoWork();
    EXPECT_EQ(Names(true, kStatusToBeUploaded).size(), 120U);
    EXPECT_EQ(Names(true, kStatusToBeHandled), KelVector<KelString>{"44001"});
}

TEST_F(HandleThreadTest, MissingFileIsOfferedToTheModulesFirst) {
    const KelString supplied = KelString(kStatusNotRelaysChild) + "|1";
    for (const auto& [name, answer, isMaster, goesOn, row] :
         Table<const char*, unsigned int, bool, bool, KelString>{
             {"will provide", 15, false, true, supplied},
             {"nobody has it", 0, false, true, KelString(kStatusToBeRequested) + "|0"},
             {"will provide, master", 15, true, true, supplied},
             {"known request, master", 16154, true, false, "(none)"},
             {"nobody has it, master", 0, true, false, "(none)"}}) {
        if (isMaster) BecomeMaster();
        FakeResult("TestSupply ()", answer);
        const auto supplier = Consume("FileStoreCallbackFileRequest", "TestSupply ()");
        for (const bool upstream : {false, true}) {
            SCOPED_TRACE(KelFormat("%s upstream %u", name, upstream));
            DeleteRows();
            const unsigned long fileId = AddFile(upstream, name, kStatusMissing);
            AddTarget(fileId, 1, kChild);
            EXPECT_EQ(handler_.LocalRequestFile(upstream), goesOn);
            EXPECT_EQ(Fields(upstream, fileId, "FileStatus, Acknowledged"), row);
            EXPECT_EQ(Count(Downstream(), "Targets"), goesOn || upstream ? "1" : "0");
        }
    }
    EXPECT_FALSE(handler_.LocalRequestFile(false));
}

TEST_F(HandleThreadTest, PackageOfAnAdministratedRelayIsPublishedHere) {
    FakeResult("RelayReceiveFile ()", 0);
    const KelContainer info = Make({{"AdministratedRelayGUID", kGuid}, {"AdministratedRelayID", 12}});
    const unsigned long fileId = ArrivedPackage(info);
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(StatusOf(true, fileId), "(none)");
    const FileStoreEntry package = OnlyRow(false);
    EXPECT_EQ(package.FileType, "OperationalRulePackage");
    EXPECT_EQ(package.FileStatus, kStatusAvailable);
    EXPECT_EQ(package.KeepCopy, static_cast<std::uint32_t>(FileStore::eKeepCopyMask));
    EXPECT_EQ(package.FilePath, PathOf(false, package));
    EXPECT_EQ(Content(package.FilePath), "package");
    const KelContainer told = OnlyCallOf("RelayReceiveFile");
    EXPECT_EQ(Texts(told, "FilePath SourceDevice Upstream"),
              KelFormat("%S|%s|true", package.FilePath, kChild));
    EXPECT_EQ(told.GetContainer("FileInfo"), info);

    const FileStoreEntry offered = OnlyRow(true);
    EXPECT_EQ(offered.FileType, "PackagerAdministratedPackage");
    EXPECT_EQ(offered.FileStatus, kStatusToBeHandled);
    EXPECT_EQ(Content(offered.FilePath), "package");
    EXPECT_EQ(Texts(FromXml(offered.FileInfo), "SendingToMaster AdministratedRelayID"), "1|12");

    // What goes on to the master is not published a second time, and a repetition finds the row.
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(OnlyRow(true).FileStatus, kStatusToBeUploaded);
    ArrivedPackage(info);
    EXPECT_TRUE(handler_.HandleFile(true));
    EXPECT_EQ(OnlyRow(false).FileId, package.FileId);
}

TEST_F(HandleThreadTest, PackageThatWasAskedForBeforeItCameIsAvailableWhole) {
    const unsigned long asked =
        AddFile(false, "package", kStatusToBeRequested,
                KelFormat("FileType = 'OperationalRulePackage', FileChecksum = '%S'", TextMd5("package")));
    ArrivedPackage();
    handler_.DoWork();
    const FileStoreEntry package = OnlyRow(false);
    EXPECT_EQ(package.FileId, asked);
    EXPECT_EQ(package.FilePath, PathOf(false, package));
    FileStore::UpdateScriptAndPackageStatus(0);
    EXPECT_EQ(Fields(false, asked, "FileStatus, FileSize"), KelString(kStatusAvailable) + "|7");
}

TEST_F(HandleThreadTest, PackageIsKeptUntilItsOfferIsTaken) {
    const unsigned long fileId = ArrivedPackage();
    const KelString temp = FileStore::strModuleDataPath + "/Temp";
    DirDelete(temp, true);
    handler_.DoWork();
    EXPECT_EQ(StatusOf(true, fileId), kStatusToBeHandled);
    DirCreate(temp);
    handler_.DoWork();
    EXPECT_EQ(StatusOf(true, fileId), "(none)");
    EXPECT_EQ(OnlyRow(true).FileType, "PackagerAdministratedPackage");
}

TEST_F(HandleThreadTest, EmptyPackageIsPublishedHereOnly) {
    FakeResult("RelayReceiveFile ()", 0);
    const unsigned long fileId = ArrivedPackage();
    WriteFile(PathOf(true, Load(true, fileId)), "");
    handler_.DoWork();
    handler_.DoWork();
    EXPECT_EQ(CallsOf("RelayReceiveFile").size(), 1U);
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusAvailable);
}

TEST_F(HandleThreadTest, PackageWhoseRowStaysIsPublishedOnceAStep) {
    struct OneStep : FileStoreHandleThread {
        void ThreadMain() override { DoWork(); }
    } thread;
    std::atomic<int> published = 0;
    Fake("RelayReceiveFile ()", [&](KelContainer&) {
        if (++published == 10) thread.Cancel(0, false);
        return 0U;
    });
    ArrivedPackage();
    Rows(Upstream(), "CREATE TRIGGER full BEFORE DELETE ON Files BEGIN SELECT RAISE(ABORT, 'full'); END");
    thread.Start();
    thread.Join();
    EXPECT_EQ(published, 1);
}

}  // namespace

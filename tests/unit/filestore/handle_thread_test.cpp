#include "filestore/up/handle_thread.h"

#include <filesystem>

#include "filestore/file_store_fixture.h"
#include "kelcore/metrics/transfer_counters.h"

namespace {

struct HandleThreadTest : StoreTest {
    /// The consumers answer with the number that a file's name begins with.
    HandleThreadTest() {
        Fake("TestConsume ()", [](KelContainer& call) {
            return static_cast<unsigned int>(std::atoi(call.GetString("FileName").c_str()));
        });
        FakeResult("RelayReceiveFile ()", 0);
    }
    static std::uint64_t Arrived(Side side, const KelString& name, const KelString& set = "") {
        return AddStored(side, name, "TOBEHANDLED", set);
    }
    /// A package that a module of this administrated relay has offered.
    static FileStoreEntry ArrivedPackage() {
        const KelContainer info = Make({{"AdministratedRelayGUID", kGuid}, {"AdministratedRelayID", 12}});
        return Load(
            kUp,
            Arrived(
                kUp, "package",
                KelFormat("FileType = 'PackagerZIPPackage', TransportMode = 'Local', FileChecksum = '%S', %S",
                          TextMd5("package"), SetInfo(info))));
    }

    Exposed<FileStoreHandleThread> handler_;
    const std::shared_ptr<void> consumer_ = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
};

TEST_F(HandleThreadTest, AnswerDecidesWhereAFileGoes) {
    const auto receiver = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    for (const auto& [side, name, status] :
         Table<Side, const char*, const char*>{{kUp, "44001", "TOBEHANDLED|now"},
                                               {kUp, "44003", "AVAILABLE|0"},
                                               {kUp, "0", "TOBEUPLOADED|0"},
                                               {kUp, "18", "TOBEUPLOADED|0"},
                                               {kDown, "44001", "TOBEHANDLED|now"},
                                               {kDown, "44003", "AVAILABLE|0"},
                                               {kDown, "0", "AVAILABLE|0"}}) {
        const auto trace = Begin(KelFormat("%s %s", name, filestore::SideName(side)));
        Arrived(side, name);
        Arrived(side, "44003 too");
        EXPECT_TRUE(handler_.HandleFile(side));
        EXPECT_EQ(Files(side, kState), (Texts{status, "AVAILABLE|0"}));
    }
}

/// Answers of consumers count only when what they have taken is on the disk, and so do the files in the
/// metrics.
TEST_F(HandleThreadTest, BatchWaitsWhenAConsumerCannotSyncIt) {
    const auto sync = Consume("FileStoreCallbackSyncUpstream", "TestSync ()");
    const auto& counters = KelTransfers(KelDirection::Up, KelFlow::Out, KelTransport::Local);
    for (const auto& [result, kept, passedOn] : Table<unsigned int, const char*, const char*>{
             {0, "AVAILABLE|0", "TOBEUPLOADED|0"}, {44001, "TOBEHANDLED|now", "TOBEHANDLED|now"}}) {
        const auto trace = Begin(kept);
        FakeResult("TestSync ()", result);
        for (const char* name : {"44003", "0"})
            Arrived(kUp, name, "FileSize = 7");
        const std::uint64_t files = counters.files.Value(), bytes = counters.bytes.Value();
        EXPECT_TRUE(handler_.HandleFile(kUp));
        EXPECT_EQ(Files(kUp, kState), (Texts{kept, passedOn}));
        EXPECT_EQ(counters.files.Value() - files, result == 0 ? 1U : 0U);
        EXPECT_EQ(counters.bytes.Value() - bytes, result == 0 ? 7U : 0U);
    }
}

TEST_F(HandleThreadTest, EqualContentIsOnTheDiskOnceAndStaysWithEachOfItsRows) {
    const KelString content(5000, 'x'), colliding(5000, 'y');
    for (const auto& [second, isShared] : Table<KelString, bool>{{content, true}, {colliding, false}}) {
        const auto trace = Begin(second.substr(0, 1));
        Texts paths;
        for (const KelString& held : {content, second}) {
            const KelString name = KelFormat("44003 %lu", paths.size());
            paths.push_back(Load(kUp, Arrived(kUp, name, "FileSize = 5000")).FilePath);
            WriteFile(paths.back(), held);
        }
        EXPECT_TRUE(handler_.HandleFile(kUp));
        EXPECT_EQ(std::filesystem::equivalent(paths[0], paths[1]), isShared);
        EXPECT_EQ(Content(paths[0]), content);
        FileDelete(paths[0]);
        EXPECT_EQ(Content(paths[1]), second);
        EXPECT_EQ(DirList(InStore("Temp")), Texts());
    }
}

/// This device is a target of a downstream file as long as no target row with an empty name says otherwise.
TEST_F(HandleThreadTest, LocalTargetRowMakesADownstreamFileACopyOnly) {
    const auto copier = Consume("FileStoreCallbackCopyDownstream", "TestConsume ()");
    const std::uint64_t fileId = Arrived(kDown, "0", SetInfo(Info()));
    AddTarget(fileId, 1, "");
    EXPECT_TRUE(handler_.HandleFile(kDown));
    const KelContainer call = OnlyCallOf("TestConsume");
    EXPECT_EQ(Read(call, "FileName FilePath SourceDevice"),
              KelFormat("0|%S|%s", Load(kDown, fileId).FilePath, kChild));
    EXPECT_EQ(call.GetContainer("FileInfo"), Info());
}

TEST_F(HandleThreadTest, AbsentFileIsDroppedAndAbsentPackageWaits) {
    AddFile(kUp, "file", "TOBEHANDLED");
    EXPECT_TRUE(FileDelete(ArrivedPackage().FilePath));
    handler_.DoWork();
    EXPECT_EQ(OnlyFields(kUp, "FileName, FileStatus"), "package|TOBEHANDLED");
    EXPECT_TRUE(CallsOf("TestConsume").empty());
}

TEST_F(HandleThreadTest, StepTakesBatchAfterBatchAndFilesThatConsumersPutOffOnce) {
    for (int i = 0; i < 120; ++i)
        Arrived(kUp, KelFormat("%s %d", i % 2 == 0 ? "0" : "44001", i));
    Arrived(kUp, "0 last");
    handler_.DoWork();
    EXPECT_EQ(Names(kUp, "TOBEUPLOADED").size(), 61U);
    EXPECT_EQ(CallsOf("TestConsume").size(), 121U);
}

TEST_F(HandleThreadTest, MissingFileIsOfferedToTheModulesFirst) {
    for (const auto& [isMaster, answer, row] :
         Table<bool, unsigned int, KelString>{{false, kKelAnswerWillProvide, "NOTRELAYSCHILD|1"},
                                              {false, 0, "TOBEREQUESTED|0"},
                                              {true, kKelAnswerWillProvide, "NOTRELAYSCHILD|1"},
                                              {true, kKelAnswerRequestKnown, "(none)"},
                                              {true, 0, "(none)"}}) {
        if (isMaster) BecomeMaster();
        FakeResult("TestSupply ()", answer);
        const auto supplier = Consume("FileStoreCallbackFileRequest", "TestSupply ()");
        for (const Side side : {kDown, kUp}) {
            const auto trace =
                Begin(KelFormat("master %d, %u, %s", isMaster, answer, filestore::SideName(side)));
            const std::uint64_t fileId = AddFile(side, "n", "MISSING");
            AddTarget(fileId, 1, kChild);
            EXPECT_EQ(handler_.LocalRequestFile(side), row != "(none)");
            EXPECT_EQ(Fields(side, fileId, "FileStatus, Acknowledged"), row);
            EXPECT_EQ(Count(kDown, "Targets"), row != "(none)" || side == kUp ? "1" : "0");
        }
    }
    EXPECT_FALSE(handler_.LocalRequestFile(kDown));
}

TEST_F(HandleThreadTest, PackageOfAnAdministratedRelayIsPublishedHereAlsoWhenItWasAskedForBefore) {
    for (const bool isAskedFor : {false, true}) {
        const auto trace = Begin(isAskedFor ? "asked for" : "unknown");
        if (isAskedFor)
            AddFile(kDown, "package", "TOBEREQUESTED",
                    "FileType = 'OperationalRulePackage', FileChecksum = '" + TextMd5("package") + "'");
        const KelString info = ArrivedPackage().FileInfo;
        EXPECT_TRUE(handler_.HandleFile(kUp));
        FileStore::UpdateScriptAndPackageStatus(0);  // finds it whole
        const KelString path = PathOf(kDown, OnlyRow(kDown).FileId), fileId = OnlyFields(kDown, "FileId");
        EXPECT_EQ(
            OnlyFields(kDown, "FileType, FileStatus, KeepCopy, FileSize, FilePath"),
            KelFormat("OperationalRulePackage|AVAILABLE|%d|7|%S", FileStore::eKeepCopyMask.load(), path));
        EXPECT_EQ(Content(path), "package");
        const KelContainer call = CallsOf("RelayReceiveFile").at(isAskedFor ? 2 : 0);
        EXPECT_EQ(Read(call, "FileType FileChecksum FilePath SourceDevice Upstream"),
                  KelFormat("PackagerZIPPackage|%S|%S|%s|true", TextMd5("package"), path, kChild));
        EXPECT_EQ(call.GetContainer("FileInfo"), FromXml(info));

        EXPECT_EQ(OnlyFields(kUp, "FileType, FileStatus"), "PackagerAdministratedPackage|TOBEHANDLED");
        EXPECT_EQ(Content(OnlyRow(kUp).FilePath), "package");
        EXPECT_EQ(Read(FromXml(OnlyRow(kUp).FileInfo), "SendingToMaster AdministratedRelayID"), "1|12");

        // What goes on to the master is not published a second time, and a repetition finds the row.
        EXPECT_TRUE(handler_.HandleFile(kUp));
        EXPECT_EQ(OnlyFields(kUp), "TOBEUPLOADED");
        ArrivedPackage();
        EXPECT_TRUE(handler_.HandleFile(kUp));
        EXPECT_EQ(OnlyFields(kDown, "FileId"), fileId);
    }
}

TEST_F(HandleThreadTest, PackageIsKeptUntilItsOfferIsTakenAndPublishedOnceAStepUntilItsRowGoes) {
    ArrivedPackage();
    const KelString temp = FileStore::strModuleDataPath + "/Temp";
    DirDelete(temp, true);
    handler_.DoWork();
    EXPECT_EQ(OnlyFields(kUp, "FileName, FileStatus"), "package|TOBEHANDLED");
    DirCreate(temp);
    auto full = Refuse(kUp, "DELETE ON Files");
    Fake("RelayReceiveFile ()", [&](KelContainer&) {
        if (CallsOf("RelayReceiveFile").size() > 1) full.reset();  // one too many: let the step end
        return 0U;
    });
    handler_.DoWork();
    EXPECT_EQ(CallsOf("RelayReceiveFile").size(), 1U);
    full.reset();
    handler_.DoWork();
    EXPECT_EQ(OnlyFields(kUp, "FileType"), "PackagerAdministratedPackage");
}

TEST_F(HandleThreadTest, EmptyPackageIsPublishedHereOnly) {
    WriteFile(ArrivedPackage().FilePath, "");
    for (int step = 0; step < 2; ++step)
        handler_.DoWork();
    EXPECT_EQ(CallsOf("RelayReceiveFile").size(), 1U);
    EXPECT_EQ(Count(kUp), "0");
    EXPECT_EQ(OnlyFields(kDown), "AVAILABLE");
}

}  // namespace

#include "filestore/module/upload_repair.h"
#include "filestore/transfer_fixture.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/archive.h"

using namespace filestore;

namespace {

class CallbackThreadTest : public StepTest {
  protected:
    static constexpr const char* kUrl =
        "/FileStore/upstream/Type/Label/0123456789abcdef0123456789abcdef/it's";

    /// Reports a PUT the way the HTTP module does.
    static void Report(const KelString& url, const KelString& group = "", const KelString& path = "") {
        KelContainer report = Make({{"URL", url}, {"MulticastAddress", group}, {"LocalPath", path}});
        EXPECT_EQ(FileStore::ActionHandler_FileStoreHttpPutCallback(&report), 0U);
    }
    /// A file that a child has announced and put.
    static unsigned long Put(const KelString& set = "") {
        const unsigned long fileId = AddStored(true, "it's", kStatusReceiving, set);
        Set(true, fileId, KelFormat("FileURL = '%Q'", KelString(kUrl)));
        return fileId;
    }
    Exposed<FileStoreCallbackThread> callbacks_;
};

TEST_F(CallbackThreadTest, OnlyUrlsThatThisDeviceReportsAreQueuedOnceAndInOrder) {
    for (const char* url : {"/b's", "/a", "/b's"})
        Report(url);
    KelContainer foreign = From(Make({{"URL", "/c"}}), "127.0.1.9");
    EXPECT_EQ(FileStore::ActionHandler_FileStoreHttpPutCallback(&foreign), 0U);
    EXPECT_EQ(callbacks_.GetCallbackCount(), 2U);
    Rows(Callback(),
         "CREATE TRIGGER full BEFORE DELETE ON CallbackThread BEGIN SELECT RAISE(ABORT, 'full'); END");
    EXPECT_EQ(callbacks_.GetFileUrl(), "") << "what cannot be taken out would come for ever";
    Rows(Callback(), "DROP TRIGGER full");
    for (const char* url : {"/b's", "/a", ""})
        EXPECT_EQ(callbacks_.GetFileUrl(), url);
}

TEST_F(CallbackThreadTest, MulticastFileIsCompletedByItsStatusAndDeletedWhenUnknown) {
    const KelString path = MakeFile("received", "12345");
    const unsigned long listening =
        AddFile(false, "l", kStatusMulticastListening, "FileURL = '/FileStore/it''s', Acknowledged = 1");
    const unsigned long receiving = AddFile(false, "r", kStatusReceiving, "FileURL = '/r'");
    Report("/FileStore/it's", "224.2.0.1", path);
    Report("/r", "224.2.0.1", path);
    EXPECT_EQ(Fields(false, listening, "FileStatus, FileSize, Acknowledged, TransportMode"),
              KelString(kStatusAvailable) + "|5|0|Multicast");
    EXPECT_EQ(StatusOf(false, receiving), kStatusToBeUploaded);
    EXPECT_TRUE(FileExists(path));
    Report("/unknown", "224.2.0.1", path);
    EXPECT_FALSE(FileExists(path));
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(CallbackThreadTest, ReceivedFileIsHandledHereWhenSomebodyWantsIt) {
    for (const auto& [name, consumes, isMaster, type, relay, before, after] :
         Table<const char*, bool, bool, const char*, const char*, const char*, const char*>{
             {"nobody", false, false, "Type", "", kStatusReceiving, kStatusToBeUploaded},
             {"consumer", true, false, "Type", "", kStatusReceiving, kStatusToBeHandled},
             {"known already", true, false, "Type", "", kStatusAvailable, kStatusAvailable},
             {"package of our relay", false, false, "UpgradePackage", kGuid, kStatusReceiving,
              kStatusToBeHandled},
             {"master", false, true, "Type", "", kStatusReceiving, kStatusToBeHandled},
             {"master takes packages", false, true, "UpgradePackage", "", kStatusReceiving,
              kStatusToBeHandled}}) {
        SCOPED_TRACE(name);
        DeleteRows();
        if (isMaster) BecomeMaster();
        std::shared_ptr<void> consumer;
        if (consumes) consumer = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
        const unsigned long fileId = Put(KelFormat("FileType = '%s', FileStatus = '%s', ", type, before) +
                                         SetInfo(Make({{"AdministratedRelayGUID", relay}})));
        callbacks_.ReceiveFile(kUrl);
        EXPECT_EQ(StatusOf(true, fileId), after);
        EXPECT_TRUE(FileExists(Load(true, fileId).FilePath));
    }
}

TEST_F(CallbackThreadTest, UnregisteredFileIsDeletedInsideTheUpstreamStoreOnly) {
    const KelString stored = FileStore::StorePath(true, "t", "l", "c", "n");
    WriteFile(stored, "x");
    callbacks_.ReceiveFile("/FileStore/upstream/t/l/c/n");
    EXPECT_FALSE(FileExists(stored));
    EXPECT_FALSE(DirExists(FileStore::StoreFolder(true, "t", "l", "c")));

    WriteFile(FileStore::StorePath(false, "t", "l", "c", "n"), "x");
    const KelString before = Everything();
    for (const char* url : {"/FileStore/downstream/t/l/c/n", "/FileStore/upstream/../downstream/t/l/c/n",
                            "/FileStore/upstream/../../../Upstream.sqlite", "/other"})
        callbacks_.ReceiveFile(url);
    EXPECT_EQ(Everything(), before);
}

TEST_F(CallbackThreadTest, PutThatIsRepeatedLeavesTheFileThatWaitsToBePacked) {
    const unsigned long fileId = Put();
    Set(true, fileId, KelFormat("FileURL = '', FileStatus = '%s'", kStatusToBePacked));
    const KelString before = Everything();
    callbacks_.ReceiveFile(kUrl);
    EXPECT_EQ(Everything(), before);
}

TEST_F(CallbackThreadTest, DrainedQueueRunsTheConfiguredStatements) {
    SetIni("FileStore", "SqlExecute1", "UPDATE Files SET KeepCopy = 5");
    SetIni("FileStore", "SqlExecute2", "UPDATE Files SET KeepCopy = KeepCopy + 1");
    SetIni("FileStore", "SqlExecute4", "DELETE FROM Files");
    callbacks_.LoadSqlList();
    const unsigned long fileId = Put();
    Report(kUrl);
    callbacks_.DoWork();
    EXPECT_EQ(Fields(true, fileId, "FileStatus, KeepCopy"), KelString(kStatusToBeUploaded) + "|6");
}

TEST_F(CallbackThreadTest, PackageOfAnotherRelayIsRejectedByItsKind) {
    for (const auto& [packageType, action, result] :
         Table<const char*, KelString, unsigned int>{{"CUSTOM", "PackagerCustomPublishIncorrectTarget", 0},
                                                     {"MSI", "PackagerMsiPublishIncorrectTarget", 0},
                                                     {"SNP", "PackagerSnpPublishIncorrectTarget", 0},
                                                     {"RPM", "PackagerRpmPublishIncorrectTarget", 0},
                                                     {"RPM", "PackagerRpmPublishIncorrectTarget", 1},
                                                     {"ODD", "", 0}}) {
        SCOPED_TRACE(KelFormat("%s %u", packageType, result));
        DeleteRows();
        AnswerAsParent(result);
        const KelString relay = Parent().HostAndPort();
        const unsigned long fileId =
            Put("FileType = 'PackagerZIPPackage', " + SetInfo(Make({{"AdministratedRelayGUID", kParentGuid},
                                                                    {"AdministratedRelayAddrPort", relay},
                                                                    {"PackageType", packageType},
                                                                    {"PackageRelativePath", "a/b"}})));
        const KelString path = Load(true, fileId).FilePath;
        Set(true, fileId, "FilePath = '/where/the/store/was/before'");
        callbacks_.ReceiveFile(kUrl);
        const bool rejected = !action.empty() && result == 0;
        EXPECT_EQ(StatusOf(true, fileId), rejected ? "(none)" : kStatusReceiving);
        EXPECT_EQ(FileExists(path), !rejected);
        const auto requests = Parent().Requests();
        ASSERT_EQ(requests.size(), action.empty() ? 0U : 1U);
        if (action.empty()) continue;
        EXPECT_EQ(requests[0].path, "/Action/" + action);
        EXPECT_EQ(Texts(requests[0].Arguments(),
                        "PackageRelativePath AdministratedRelayGUID AdministratedRelayAddrPort"),
                  KelString("a/b|") + kParentGuid + "|" + relay);
    }
}

class PackedUploadTest : public CallbackThreadTest {
  protected:
    void SetUp() override {
        CallbackThreadTest::SetUp();
        Fake("CoreUtilsExtractFile ()", [](KelContainer& call) {
            for (const auto& [name, content] : ArchiveContent(call.GetString("FilePath")))
                WriteFile(call.GetString("DestinationPath") + "/" + name, content);
            return 0U;
        });
    }
    static KelContainer Record(const KelString& name, std::int64_t size) {
        return With(Offer(), {{"FileName", name},
                              {"SourceDevice", kChild},
                              {"FilePath", "/etc/passwd"},  // a child names no path of this device
                              {"FileSize", size}});
    }
    /// An archive put by a child: its index (none when null), and these files beside it.
    unsigned long PutArchive(const KelContainer* index, const KelVector<KelString>& entries) {
        const KelString made = Root() + "/made.zip";
        GenericArchive archive(kArchiveZip);
        archive.Create(made);
        if (index != nullptr)
            archive.AddEntry("Temp/PackedFilesInfo.xml", MakeFile("index", index->SaveToXML()), 6);
        for (const KelString& entry : entries)
            archive.AddEntry(entry, MakeFile(entry, entry.substr(entry.rfind('/') + 1)), 6);
        EXPECT_EQ(archive.Close(), kArchiveDone);
        const unsigned long fileId = Put("FileType = 'FileStorePackedFiles'");
        WriteFile(Load(true, fileId).FilePath, Content(made));
        return fileId;
    }
    KelContainer index_ = Make({{"PackedFile", Record("a", 1)}});
};

TEST_F(PackedUploadTest, FilesBecomeRowsAndTheArchiveGoes) {
    index_.SetContainer("PackedFile", Record("it's", 4), 1);
    const unsigned long fileId = PutArchive(&index_, {"upstream/t/l/c/a", "upstream/t/l/c/it's"});
    const KelString archive = Load(true, fileId).FilePath;
    callbacks_.ReceiveFile(kUrl);
    EXPECT_FALSE(FileExists(archive));
    const KelString rest = KelFormat("|%s|%s", kStatusToBeUploaded, kChild);
    EXPECT_EQ(Rows(Upstream(), "SELECT FileName, FileStatus, SourceDevice FROM Files ORDER BY FileName"),
              (KelVector<KelString>{"a" + rest, "it's" + rest}));
    EXPECT_EQ(Content(FileStore::StorePath(true, "t", "l", "c", "it's")), "it's");
    EXPECT_EQ(DirList(FileStore::strStorageLocationToUse + "/Temp"), KelVector<KelString>{});
}

/// What reaches beyond the upstream files is not even unpacked.
TEST_F(PackedUploadTest, ArchiveThatCannotBeUsedLeavesNoRows) {
    const KelContainer empty, unusable = Make({{"PackedFile", Record("a", 0)}});
    for (const auto& [name, index, entry, unpacked, stays] :
         Table<const char*, const KelContainer*, const char*, bool, bool>{
             {"no index", nullptr, "upstream/t/l/c/b", true, true},
             {"nothing in the index", &empty, "upstream/t/l/c/b", true, false},
             {"unusable record", &unusable, "upstream/t/l/c/b", true, true},
             {"database", &index_, "Callback.sqlite", false, true},
             {"downstream file", &index_, "downstream/t/l/c/n", false, true},
             {"short path", &index_, "upstream/t/l/n", false, true},
             {"other than the index", &index_, "Temp/other.xml", false, true}}) {
        SCOPED_TRACE(name);
        DeleteRows();
        const std::size_t callsBefore = CallsOf("CoreUtilsExtractFile").size();
        const unsigned long fileId = PutArchive(index, {"upstream/t/l/c/a", entry});
        const KelString archive = Load(true, fileId).FilePath;
        callbacks_.ReceiveFile(kUrl);
        EXPECT_EQ(CallsOf("CoreUtilsExtractFile").size(), callsBefore + (unpacked ? 1 : 0));
        EXPECT_EQ(StatusOf(true, fileId), stays ? kStatusReceiving : "(none)");
        EXPECT_EQ(FileExists(archive), stays);
        EXPECT_EQ(Count(Upstream(), "Files"), stays ? "1" : "0");
    }
}

TEST_F(PackedUploadTest, ExtractionIsTriedFiveTimes) {
    FakeResult("CoreUtilsExtractFile ()", 16003);
    const unsigned long fileId = PutArchive(&index_, {"upstream/t/l/c/a"});
    callbacks_.ReceiveFile(kUrl);
    ASSERT_EQ(CallsOf("CoreUtilsExtractFile").size(), 5U);
    EXPECT_EQ(CallsOf("CoreUtilsExtractFile")[4].GetString("DestinationPath"),
              FileStore::strStorageLocationToUse);
    EXPECT_EQ(StatusOf(true, fileId), kStatusReceiving);
}

TEST_F(PackedUploadTest, ArchiveThatArrivedBeforeTheStoreMovedIsUnpacked) {
    PutArchive(&index_, {"upstream/t/l/c/a"});
    SetIni("Directories", "FileStorage", Root() + "/new");
    CleanUp();
    Initialise();
    FileStoreRepairUploads();
    EXPECT_EQ(callbacks_.GetFileUrl(), kUrl);
    callbacks_.ReceiveFile(kUrl);
    EXPECT_EQ(Names(true), KelVector<KelString>{"a"});
    EXPECT_EQ(DirList(Root() + "/new/upstream/FileStorePackedFiles/Label"), KelVector<KelString>{});
}

TEST_F(CallbackThreadTest, RepairQueuesWhatArrived) {
    Put();
    AddStored(true, "handled", kStatusAvailable, "FileURL = '/handled'");
    AddFile(true, "absent", kStatusReceiving, "FileURL = '/absent'");
    FileStoreRepairUploads();
    FileStoreRepairUploads();
    EXPECT_EQ(callbacks_.GetCallbackCount(), 1U);
    EXPECT_EQ(callbacks_.GetFileUrl(), kUrl);
}

TEST_F(CallbackThreadTest, StartRemovesWhatIsHalfMade) {
    const KelString store = Root() + "/store/";
    SetIni("Directories", "FileStorage", store);
    const KelVector<KelString> halfMade = {FileStore::strModuleDataPath + "/Temp/PACKEDFILES_1_2.zip",
                                           FileStore::strModuleDataPath + "/Temp/.kel-abcdef",
                                           store + "Temp/PACKEDFILES_1_2.zip.xml", store + "Temp/.kel-abcdef",
                                           store + ".extract-1/upstream/x"};
    const KelVector<KelString> kept = {FileStore::strModuleDataPath + "/Temp/other", store + "Temp/other",
                                       store + "upstream/t/l/c/PACKEDFILES_1_2.zip"};
    for (const auto& paths : {halfMade, kept})
        for (const KelString& path : paths)
            WriteFile(path, "x");
    CleanUp();
    Initialise();
    for (const KelString& path : halfMade)
        EXPECT_FALSE(FileExists(path)) << path;
    for (const KelString& path : kept)
        EXPECT_TRUE(FileExists(path)) << path;
}

}  // namespace

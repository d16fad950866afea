#include "filestore/up/callback_thread.h"
#include "filestore/db/callback_table.h"
#include "filestore/file_store_fixture.h"
#include "filestore/up/upload_repair.h"
#include "kelcore/archive.h"
#include "read_zip.h"

namespace {

struct CallbackThreadTest : StoreTest {
    static constexpr const char* kUrl = "/FileStore/upstream/t/l/c/it's";

    /// Reports a PUT the way the HTTP module does.
    static void Report(const KelString& url, const KelString& group = "", const KelString& path = "") {
        Ask("FileStoreHttpPutCallback",
            Make({{"URL", url}, {"MulticastAddress", group}, {"LocalPath", path}}));
    }
    /// A file that a child has announced and put.
    static std::uint64_t Put(const KelString& set = "KeepCopy = 0") {
        return AddStored(kUp, "it's", "RECEIVING", KelFormat("FileURL = '%Q', %S", KelString(kUrl), set));
    }
    static Texts Queued() {
        Texts urls;
        std::uint64_t last = 0;
        while (const auto arrived = filestore::NextArrivedFile(last)) {
            last = arrived->id;
            urls.push_back(arrived->url);
        }
        return urls;
    }
    void ReceiveOnly() { callbacks_.ReceiveFile(filestore::StoredUrl(kUp, OnlyRow(kUp).Key())); }
    Exposed<FileStoreCallbackThread> callbacks_;
};

TEST_F(CallbackThreadTest, OnlyUrlsThatThisDeviceReportsAreQueuedOnceAndInOrder) {
    for (const char* url : {"/b's", "/a", "/b's"})
        Report(url);
    Ask("FileStoreHttpPutCallback", From(Make({{"URL", "/c"}}), "127.0.1.9"));
    EXPECT_EQ(callbacks_.GetCallbackCount(), 2U);
    EXPECT_EQ(Queued(), (Texts{"/b's", "/a"}));
}

TEST_F(CallbackThreadTest, MulticastFileIsCompletedByItsStatusAndDeletedWhenUnknown) {
    const KelString path = MakeFile("received", "12345");
    const std::uint64_t listening =
        AddFile(kDown, "l", "MULTICASTLISTENING", "FileURL = '/FileStore/it''s', Acknowledged = 1");
    const std::uint64_t receiving = AddFile(kDown, "r", "RECEIVING", "FileURL = '/r'");
    Report("/FileStore/it's", "224.2.0.1", path);
    Report("/r", "224.2.0.1", path);
    EXPECT_EQ(Fields(kDown, listening, "FileStatus, FileSize, Acknowledged, TransportMode"),
              "AVAILABLE|5|0|Multicast");
    EXPECT_EQ(Fields(kDown, receiving), "TOBEUPLOADED");
    EXPECT_TRUE(FileExists(path));
    Report("/unknown", "224.2.0.1", path);
    EXPECT_FALSE(FileExists(path));
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(CallbackThreadTest, ReceivedFileIsHandledHereWhenThereIsAConsumer) {
    for (const auto& [name, consumes, isMaster, type, relay, before, after] :
         Table<const char*, bool, bool, const char*, const char*, const char*, const char*>{
             {"no consumer", false, false, "t", "", "RECEIVING", "TOBEUPLOADED"},
             {"consumer", true, false, "t", "", "RECEIVING", "TOBEHANDLED"},
             {"known already", true, false, "t", "", "AVAILABLE", "AVAILABLE"},
             {"package of no relay", false, false, "UpgradePackage", "", "RECEIVING", "TOBEUPLOADED"},
             {"package of our relay", false, false, "UpgradePackage", kGuid, "RECEIVING", "TOBEHANDLED"},
             {"master", false, true, "t", "", "RECEIVING", "TOBEHANDLED"},
             {"package for the master", false, true, "UpgradePackage", "", "RECEIVING", "TOBEHANDLED"}}) {
        const auto trace = Begin(name);
        if (isMaster) BecomeMaster();
        std::shared_ptr<void> consumer;
        if (consumes) consumer = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
        const std::uint64_t fileId = Put(KelFormat("FileType = '%s', FileStatus = #%s#, ", type, before) +
                                         SetInfo(Make({{"AdministratedRelayGUID", relay}})));
        ReceiveOnly();
        EXPECT_EQ(Fields(kUp, fileId), after);
        EXPECT_TRUE(FileExists(Load(kUp, fileId).FilePath));
    }
}

TEST_F(CallbackThreadTest, UnregisteredFileIsDeletedInsideTheUpstreamStoreOnly) {
    const FileKey key = {"t", "l", "n", "c"};
    WriteFile(FileStore::StorePath(kUp, key), "x");
    callbacks_.ReceiveFile("/FileStore/upstream/t/l/c/n");
    EXPECT_FALSE(DirExists(FileStore::StoreFolder(kUp, key)));

    WriteFile(FileStore::StorePath(kDown, key), "x");
    Put("FileStatus = #TOBEPACKED#, FileURL = ''");  // of a PUT that was repeated
    const KelString before = Everything();
    for (const char* url : {"/FileStore/downstream/t/l/c/n", "/FileStore/upstream/../downstream/t/l/c/n",
                            "/FileStore/upstream/../../../Upstream.sqlite", "/other", kUrl})
        callbacks_.ReceiveFile(url);
    EXPECT_EQ(Everything(), before);
}

TEST_F(CallbackThreadTest, DrainedQueueRunsTheConfiguredStatements) {
    SetIni("FileStore", "SqlExecute1", "UPDATE Files SET KeepCopy = 5");
    SetIni("FileStore", "SqlExecute2", "UPDATE Files SET KeepCopy = KeepCopy + 1");
    SetIni("FileStore", "SqlExecute4", "DELETE FROM Files");
    callbacks_.LoadSqlList();
    Put();
    Report(kUrl);
    callbacks_.DoWork();
    EXPECT_EQ(OnlyFields(kUp, "FileStatus, KeepCopy"), "TOBEUPLOADED|6");
}

TEST_F(CallbackThreadTest, PackageOfAnotherRelayIsRejectedByItsKind) {
    const KelString names = "PackageRelativePath AdministratedRelayGUID AdministratedRelayAddrPort";
    for (const auto& [type, action, result] :
         Table<const char*, KelString, unsigned int>{{"CUSTOM", "PackagerCustomPublishIncorrectTarget", 0},
                                                     {"MSI", "PackagerMsiPublishIncorrectTarget", 0},
                                                     {"SNP", "PackagerSnpPublishIncorrectTarget", 0},
                                                     {"RPM", "PackagerRpmPublishIncorrectTarget", 0},
                                                     {"RPM", "PackagerRpmPublishIncorrectTarget", 1},
                                                     {"ODD", "", 0}}) {
        const auto trace = Begin(KelFormat("%s %u", type, result));
        AnswerAsParent(result);
        const KelContainer info = Make({{"PackageRelativePath", "a/b"},
                                        {"AdministratedRelayGUID", kParentGuid},
                                        {"AdministratedRelayAddrPort", Parent().HostAndPort()}});
        const std::uint64_t fileId =
            Put("FileType = 'PackagerZIPPackage', " + SetInfo(With(info, {{"PackageType", type}})));
        const KelString path = Load(kUp, fileId).FilePath;
        Set(kUp, fileId, "FilePath = '/where/the/store/was/before'");
        ReceiveOnly();
        const bool rejected = !action.empty() && result == 0;
        EXPECT_EQ(Fields(kUp, fileId), rejected ? "(none)" : "RECEIVING");
        EXPECT_EQ(FileExists(path), !rejected);
        if (action.empty())
            EXPECT_TRUE(Parent().Requests().empty());
        else
            EXPECT_EQ(Read(OnlyCallTo(Parent(), action), names), Read(info, names));
    }
}

struct PackedUploadTest : CallbackThreadTest {
    PackedUploadTest() {
        Fake("CoreUtilsExtractFile ()", [](KelContainer& call) {
            for (const auto& [name, content] : ReadZip(call.GetString("FilePath")))
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
    /// An archive put by a child: its index (none when null), and these files beside it. Its path.
    KelString PutArchive(const KelContainer* index, const Texts& entries) {
        const KelString made = Root() + "/made.zip";
        GenericArchive archive(kArchiveZip);
        archive.Create(made);
        if (index != nullptr)
            archive.AddEntry("Temp/PackedFilesInfo.xml", MakeFile("index", index->SaveToXML()), 6);
        for (const KelString& entry : entries)
            archive.AddEntry(entry, MakeFile(entry, entry.substr(entry.rfind('/') + 1)), 6);
        EXPECT_EQ(archive.Close(), kArchiveDone);
        const KelString path = Load(kUp, Put("FileType = 'FileStorePackedFiles'")).FilePath;
        WriteFile(path, Content(made));
        return path;
    }
    KelContainer index_ = Make({{"PackedFile", Record("a", 1)}});
};

TEST_F(PackedUploadTest, FilesBecomeRowsAndTheArchiveGoes) {
    index_.SetContainer("PackedFile", Record("b's", 3), 1);
    const KelString archive = PutArchive(&index_, {"upstream/t/l/c/a", "upstream/t/l/c/b's"});
    ReceiveOnly();
    EXPECT_FALSE(FileExists(archive));
    const KelString rest = KelString("|TOBEUPLOADED|") + kChild;
    EXPECT_EQ(Rows(kUp, "SELECT FileName, FileStatus, SourceDevice FROM Files ORDER BY FileName"),
              (Texts{"a" + rest, "b's" + rest}));
    EXPECT_EQ(Content(FileStore::StorePath(kUp, {"t", "l", "b's", TextMd5("b's")})), "b's");
    EXPECT_EQ(DirList(FileStore::strStorageLocationToUse + "/Temp"), Texts{});
}

/// What reaches beyond the upstream files is not even unpacked.
TEST_F(PackedUploadTest, ArchiveThatCannotBeUsedLeavesNoRows) {
    const KelContainer empty;
    const KelContainer unusable =
        Make({{"PackedFile",
               With(Record("a", 0), {{"FileChecksum", TextMd5("a")}, {"PackedEntry", "upstream/t/l/c/a"}})}});
    const char* const file = "upstream/t/l/c/b";
    for (const auto& [name, index, entry, extractions, stays] :
         Table<KelString, const KelContainer*, const char*, std::size_t, bool>{
             {"no index", nullptr, file, 1, true},
             {"nothing in the index", &empty, file, 1, false},
             {"unusable record", &unusable, file, 1, false},
             {"database", &index_, "Callback.sqlite", 0, true},
             {"downstream file", &index_, "downstream/t/l/c/n", 0, true},
             {"short path", &index_, "upstream/t/l/n", 0, true},
             {"other than the index", &index_, "Temp/other.xml", 0, true},
             {"extraction fails", &index_, file, 5, true}}) {
        const auto trace = Begin(name);
        if (name == "extraction fails") FakeResult("CoreUtilsExtractFile ()", 16003);
        const std::size_t callsBefore = CallsOf("CoreUtilsExtractFile").size();
        const KelString archive = PutArchive(index, {"upstream/t/l/c/a", entry});
        ReceiveOnly();
        EXPECT_EQ(CallsOf("CoreUtilsExtractFile").size() - callsBefore, extractions);
        EXPECT_EQ(Rows(kUp, "SELECT FileStatus FROM Files"), stays ? Texts{"RECEIVING"} : Texts{});
        EXPECT_EQ(FileExists(archive), stays);
    }
}

TEST_F(PackedUploadTest, RepairQueuesWhatArrivedEvenBeforeTheStoreMoved) {
    PutArchive(&index_, {"upstream/t/l/c/a"});
    AddStored(kUp, "handled", "AVAILABLE", "FileURL = '/handled'");
    AddFile(kUp, "absent", "RECEIVING", "FileURL = '/absent'");
    SetIni("Directories", "FileStorage", Root() + "/new");
    CleanUp();
    Initialise();
    for (int repetition = 0; repetition < 2; ++repetition)
        FileStoreRepairUploads();
    EXPECT_EQ(callbacks_.GetCallbackCount(), 1U);
    callbacks_.DoWork();
    EXPECT_EQ(Names(kUp), (Texts{"handled", "absent", "a"}));
    EXPECT_EQ(DirList(Root() + "/new/upstream/FileStorePackedFiles/l"), Texts{});
}

TEST_F(CallbackThreadTest, StartRemovesWhatIsHalfMade) {
    const KelString store = Root() + "/store/", work = FileStore::strModuleDataPath + "/Temp/";
    SetIni("Directories", "FileStorage", store);
    for (const KelString& folder : {work, store + "Temp/"})
        for (const char* name : {"PACKEDFILES_1_2.zip", "PACKEDFILES_1_2.zip.xml", ".kel-abcdef", "other"})
            WriteFile(folder + name, "x");
    for (const char* path : {".extract-1/upstream/x", "upstream/t/l/c/PACKEDFILES_1_2.zip"})
        WriteFile(store + path, "x");
    CleanUp();
    Initialise();
    for (const KelString& folder : {work, store + "Temp/"})
        EXPECT_EQ(DirList(folder), Texts{"other"});
    EXPECT_FALSE(DirExists(store + ".extract-1"));
    EXPECT_TRUE(FileExists(store + "upstream/t/l/c/PACKEDFILES_1_2.zip"));
}

}  // namespace

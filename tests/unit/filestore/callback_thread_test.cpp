#include "filestore/up/callback_thread.h"
#include "filestore/db/callback_table.h"
#include "filestore/file_store_fixture.h"

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
        return AddStored(kUp, "it's", "RECEIVING", set);
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
    Ask("FileStoreHttpPutCallback", From(Make({{"URL", "/c"}}), "127.0.1.9"), kKelErrorNotAvailable);
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
    for (const char* status : {"AVAILABLE", "DOWNLOADING"}) {  // it was offered or downloaded meanwhile
        const auto trace = Begin(status);
        const KelString content = PathOf(kDown, AddStored(kDown, "taken", status, "FileURL = '/taken'"));
        Report("/taken", "224.2.0.1", content);
        EXPECT_EQ(Content(content) + "|" + OnlyFields(kDown), KelString("taken|") + status);
    }
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
        const auto consumer = consumes ? Consume("FileStoreCallbackCopyUpstream", "TestConsume ()") : nullptr;
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
    for (const auto& [type, kind, result] : Table<const char*, const char*, unsigned int>{
             {"CUSTOM", "Custom", 0}, {"RPM", "Rpm", 0}, {"RPM", "Rpm", 1}, {"ODD", "", 0}}) {
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
        const bool isKnown = *kind != '\0', rejected = isKnown && result == 0;
        if (isKnown && !rejected) ReceiveOnly();  // not called again soon
        EXPECT_EQ(Fields(kUp, fileId), rejected ? "(none)" : "RECEIVING");
        EXPECT_EQ(FileExists(path), !rejected);
        EXPECT_EQ(Parent().Requests().size(), isKnown);
        if (!isKnown) continue;
        const KelContainer call = OnlyCallTo(Parent(), KelFormat("Packager%sPublishIncorrectTarget", kind));
        EXPECT_EQ(Read(call, names), Read(info, names));
    }
}

/// What the HTTP server does with a PUT; the answer of the first event that refuses it.
TEST_F(CallbackThreadTest, OnlyTheOfferedContentIsAccepted) {
    const KelString checksum = TextMd5("content");
    const KelString url =
        Ask("FileStoreReceiveFile",
            With(Offer("t", checksum), {{"Upstream", true}, {"FileSize", 7}, {"SourceDevice", kChild}}))
            .GetString("FileURL");
    const auto put = [this](const KelString& to, const KelString& content) {
        const unsigned int refusal =
            Call("FileStoreHttpPutCheck", Make({{"URL", to}, {"ContentPath", MakeFile("body", content)}}));
        return refusal != 0 ? refusal : Call("FileStoreHttpPutCallback", Make({{"URL", to}}));
    };
    for (const auto& [to, size, answer] :
         Table<KelString, int, unsigned int>{{url, 7, kKelAnswerExpected},
                                             {url, 8, kKelAnswerOtherContent},
                                             {url + "x", 7, kKelAnswerNotExpected},
                                             {"/FileStore/other", 7, kKelOk}})
        EXPECT_EQ(Call("FileStoreHttpPutBegin", Make({{"URL", to}, {"Size", size}})), answer);
    EXPECT_EQ(put(url, "contenu"), kKelAnswerOtherContent);
    EXPECT_EQ(put(url, "content!"), kKelAnswerOtherContent);
    EXPECT_EQ(put(url + "x", "content"), kKelAnswerNotExpected);
    EXPECT_EQ(put("/FileStore/other", "content"), kKelOk) << "another module's";
    Rows(kUp, "UPDATE Files SET FileType = 'FileStorePackedFiles'");
    EXPECT_EQ(put("/FileStore/upstream/FileStorePackedFiles/l/" + checksum + "/n", "content"),
              kKelAnswerOtherContent)
        << "no archive";
    Rows(kUp, "UPDATE Files SET FileType = 't'");
    {
        const auto full = Refuse(FileStoreGetCallbackDatabase().connection, "INSERT ON CallbackThread");
        EXPECT_EQ(put(url, "content"), kKelErrorNotAvailable) << "queued before it is answered";
    }
    EXPECT_EQ(put(url, "content"), kKelOk);
    EXPECT_EQ(Queued(), (Texts{"/FileStore/other", url}));
    {
        const auto full = Refuse(kUp, "UPDATE ON Files");
        callbacks_.DoWork();
    }
    EXPECT_EQ(Queued(), Texts{url}) << "until its row has moved on";
    callbacks_.DoWork();
    EXPECT_EQ(OnlyFields(kUp), "TOBEUPLOADED");
    EXPECT_EQ(Queued(), Texts{});
    EXPECT_EQ(Call("FileStoreHttpPutBegin", Make({{"URL", url}, {"Size", 7}})), kKelOk) << "it is here";
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

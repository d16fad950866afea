#include "filestore/db/callback_table.h"
#include "filestore/push_fixture.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/handle_thread.h"
#include "kelcore/archive.h"
#include "read_zip.h"

namespace {

/// Which upstream rows and contents an offer, a PUT or an archive reaches.
struct UpstreamFileTest : PushTest {
    static constexpr const char* kOther = "127.0.1.8:1610/0A1B0000-0000-4000-8000-0000000000C2";
    static constexpr const char* kUrl = "/FileStore/upstream/t/l/c/n";
    static constexpr const char* kOtherUrl =
        "/FileStore/upstream/t/l/c/from-0A1B0000-0000-4000-8000-0000000000C2/n";

    /// The URL that a child gets for its offer.
    static KelString UrlFor(const KelString& device, const KelString& checksum = "c", std::int64_t size = 1) {
        return Ask("FileStoreReceiveFile",
                   With(Offer("t", checksum),
                        {{"Upstream", true}, {"FileSize", size}, {"SourceDevice", device}}))
            .GetString("FileURL");
    }
    static KelString PathOfUrl(const KelString& url) {
        return FileStore::strStorageLocationToUse + url.substr(KelString("/FileStore/").size());
    }
    /// What the HTTP server does with a PUT; the answer of the first event that refuses it.
    unsigned int PutContent(const KelString& url, const KelString& content) {
        KelContainer check = Make({{"URL", url}, {"ContentPath", MakeFile("body", content)}});
        if (const unsigned int refusal = Call("FileStoreHttpPutCheck", check)) return refusal;
        WriteFile(PathOfUrl(url), content);
        KelContainer report = Make({{"URL", url}});
        return Call("FileStoreHttpPutCallback", report);
    }
    static KelString StatusOf(const KelString& device) {
        return Cell(kUp, "SELECT FileStatus FROM Files WHERE SourceDevice = '" + device + "'");
    }
    Exposed<FileStoreCallbackThread> callbacks_;
    Exposed<FileStoreHandleThread> handler_;
};

TEST_F(UpstreamFileTest, FilesOfDifferentDevicesShareNeitherRowNorContent) {
    EXPECT_EQ(UrlFor(kChild), kUrl);
    EXPECT_EQ(UrlFor(kOther), kOtherUrl);
    EXPECT_EQ(UrlFor("127.0.1.99:1/0A1B0000-0000-4000-8000-0000000000C2"), kOtherUrl) << "the same device";
    EXPECT_EQ(Count(kUp), "2");
    for (const KelString url : {kUrl, kOtherUrl}) {
        WriteFile(PathOfUrl(url), url);
        callbacks_.ReceiveFile(url);
    }
    // The parent may give both the URL that one of them has here.
    Rows(kUp, KelFormat("UPDATE Files SET FileURL = '%s', FileStatus = #UPLOADING#", kUrl));
    EXPECT_EQ(UrlFor(kOther), kOtherUrl);
    EXPECT_EQ(StatusOf(kOther), "UPLOADING") << "an offer without PUT holds up nothing";

    const KelString own = MakeFile("own", "own");
    Accept(Offer(), {{"Upstream", true}, {"MovePath", own}});
    EXPECT_EQ(StatusOf(kOwnUrl), "TOBEHANDLED");
    EXPECT_FALSE(FileExists(own));
    Texts contents;
    for (const KelString& id : Rows(kUp, "SELECT FileId FROM Files ORDER BY FileId"))
        contents.push_back(Content(filestore::ContentPath(Load(kUp, std::stoull(id)), kUp)));
    EXPECT_EQ(contents, (Texts{kUrl, kOtherUrl, "own"}));
}

TEST_F(UpstreamFileTest, LocalOfferBringsTheContentOfAKnownFileThatLacksIt) {
    for (const auto& [status, hasContent, after] :
         Table<const char*, bool, const char*>{{"RECEIVING", false, "TOBEHANDLED"},
                                               {"AVAILABLE", false, "TOBEHANDLED"},
                                               {"PACKEDFILE", true, "TOBEHANDLED"},
                                               {"TOBEPACKED", true, "TOBEPACKED"}}) {
        const auto trace = Begin(status);
        const std::uint64_t fileId = AddStored(kUp, "n", status, KelFormat("SourceDevice = '%s'", kOwnUrl));
        if (!hasContent) FileDelete(Load(kUp, fileId).FilePath);
        const KelString source = MakeFile("source", "n");
        Accept(Offer(), {{"Upstream", true}, {"MovePath", source}});
        EXPECT_FALSE(FileExists(source));
        EXPECT_EQ(Content(OnlyRow(kUp).FilePath), "n");
        EXPECT_EQ(OnlyFields(kUp, "FileId, FileStatus"), KelFormat("%lu|%s", fileId, after));
    }
}

TEST_F(UpstreamFileTest, OfferWhoseFolderCannotBeMadeIsRefused) {
    WriteFile(FileStore::strStorageLocationToUse + "upstream/t", "a file where the folder should be");
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}, {"FileSize", 1}, {"SourceDevice", kChild}}),
              kKelErrorNotAvailable);
    EXPECT_EQ(Count(kUp), "0");
}

TEST_F(UpstreamFileTest, OnlyTheOfferedContentIsAccepted) {
    const KelString content = "content", checksum = TextMd5(content);
    const KelString url = UrlFor(kChild, checksum, 7);
    EXPECT_EQ(PutContent(url, "contenu"), kKelAnswerOtherContent);
    EXPECT_EQ(PutContent(url, "content!"), kKelAnswerOtherContent);
    EXPECT_EQ(PutContent(url + "x", content), kKelAnswerNotExpected);
    EXPECT_EQ(PutContent("/FileStore/other", content), kKelOk) << "another module's";
    Rows(kUp, "UPDATE Files SET FileType = 'FileStorePackedFiles'");
    EXPECT_EQ(PutContent("/FileStore/upstream/FileStorePackedFiles/l/" + checksum + "/n", content),
              kKelAnswerOtherContent)
        << "no archive";
    Rows(kUp, "UPDATE Files SET FileType = 't'");
    {
        const auto full = Refuse(FileStoreGetCallbackDatabase().connection, "INSERT ON CallbackThread");
        EXPECT_EQ(PutContent(url, content), kKelErrorNotAvailable) << "queued before it is answered";
    }
    EXPECT_EQ(PutContent(url, content), kKelOk);
    EXPECT_EQ(callbacks_.GetCallbackCount(), 2U);
}

TEST_F(UpstreamFileTest, ArrivedFileStaysQueuedUntilItsRowHasMovedOn) {
    const KelString url = UrlFor(kChild, TextMd5("x"));
    ASSERT_EQ(PutContent(url, "x"), kKelOk);
    {
        const auto full = Refuse(Database(kUp), "UPDATE ON Files");
        callbacks_.DoWork();
    }
    EXPECT_EQ(OnlyFields(kUp), "RECEIVING");
    callbacks_.DoWork();
    EXPECT_EQ(OnlyFields(kUp), "TOBEUPLOADED");
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(UpstreamFileTest, RefusedUploadIsOfferedAgainOrSentAgain) {
    const KelString outside = Root() + "/outside";
    for (const auto& [name, httpStatus, set, isChanged, status] :
         Table<KelString, unsigned int, KelString, bool, KelString>{
             {"offer unknown", 404, "FirstRelay = 'r'", false, "TOBEUPLOADED"},
             {"damaged on the way", 422, "FirstRelay = ''", false, "UPLOADING"},
             {"changed here", 422, "FirstRelay = ''", true, "TOBEHANDLED"},
             {"changed outside", 422, "ExternalFile = 1, FilePath = '" + outside + "'", true, "TOBEHANDLED"},
             {"damaged copy of another's file", 422, "FirstRelay = 'r'", true, "UPLOADING"}}) {
        const auto trace = Begin(name);
        AnswerAsParent([code = httpStatus](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
            return {.status = request.target.ends_with("bad") ? code : 201U};
        });
        const std::uint64_t refused =
            AddStored(kUp, name, "UPLOADING",
                      KelFormat("FileURL = '/bad', FileChecksum = '%S', %S", TextMd5(name), set));
        if (isChanged) WriteFile(Load(kUp, refused).FilePath, "changed");
        const std::uint64_t good = AddStored(kUp, "good", "UPLOADING", "FileURL = '/good'");
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(Fields(kUp, good), "AVAILABLE") << "a refused file holds up no other";
        Rows(kUp, "DELETE FROM Files WHERE FileName = 'good'");
        EXPECT_EQ(OnlyFields(kUp, "FileStatus, FileChecksum"),
                  status + "|" + TextMd5(status == "TOBEHANDLED" ? "changed" : name));
        EXPECT_TRUE(FileExists(filestore::ContentPath(OnlyRow(kUp), kUp)));
    }
}

TEST_F(UpstreamFileTest, FilesThatConsumersPutOffStandBehindTheOthers) {
    Fake("TestConsume ()", [](KelContainer& call) {
        return call.GetString("FileName") == "good" ? 0U : static_cast<unsigned int>(kKelAnswerTryLater);
    });
    const auto consumer = Consume("FileStoreCallbackCopyUpstream", "TestConsume ()");
    for (int i = 0; i < 120; ++i)
        AddStored(kUp, KelFormat("%d", i), "TOBEHANDLED");
    const std::uint64_t good = AddStored(kUp, "good", "TOBEHANDLED");
    handler_.DoWork();
    EXPECT_EQ(Fields(kUp, good), "TOBEUPLOADED");
    EXPECT_EQ(CallsOf("TestConsume").size(), 121U) << "each once in a step";
}

TEST_F(UpstreamFileTest, AnArchiveHoldsWhatMayTravelTogetherAndNoNameTwice) {
    PackAutomatically();
    for (const auto& [name, set] :
         Table<const char*, const char*>{{"n", ""},
                                         {"n", "Priority = 7"},  // the same place
                                         {"bypass", "Bypass = 1"},
                                         {"large", "FileSize = 9223372036854775807"}})
        Waiting(name, set);
    AcceptAll();
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "TOBEPACKED"), Texts{"n"});
    EXPECT_EQ(Names(kUp, "UPLOADING"), Texts{"large"});
    EXPECT_EQ(Upload(), Outcome::Done);

    CloseWindow(FileStore::bmTrackUsageUp);
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "PACKEDFILE"), (Texts{"n", "bypass"}));
    EXPECT_EQ(Rows(kUp, "SELECT Bypass FROM Files WHERE FileType = 'FileStorePackedFiles' ORDER BY FileId"),
              (Texts{"0", "1"}));
}

TEST_F(UpstreamFileTest, ManualUploadOutlastsAClosedWindowManyArchivesAndAFailedUpload) {
    AnswerAsParent([](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.method == "PUT") return {.status = request.target.ends_with("large") ? 507U : 201U};
        return TestHttpServer::ActionResult(
            0, Make({{"FileURL", "/" + request.Arguments().GetString("FileName")}}));
    });
    FileStore::uMaxFilesToConcat = 5;
    FileStore::fConcatFiles = true;
    for (int i = 0; i < 12; ++i)
        Waiting(KelFormat("%d", i));
    Waiting("large", "FileSize = 9223372036854775807");
    CloseWindow(FileStore::bmTrackUsageUp);
    Ask("FileStorePerformManualUpload");
    push_.DoWork();
    FileStore::bmTrackUsageUp.ClearWindow();
    for (int step = 0; step < 4; ++step)
        push_.DoWork();
    EXPECT_EQ(Names(kUp, "PACKEDFILE").size(), 12U);
    EXPECT_TRUE(FileStore::fProcessManualUpload) << "the large file is still to be sent";
    Rows(kUp, "DELETE FROM Files WHERE FileName = 'large'");
    push_.DoWork();
    EXPECT_FALSE(FileStore::fProcessManualUpload);
}

/// What the parent has accepted is recorded even when the archive for the other files cannot be made.
TEST_F(UpstreamFileTest, ArchiveThatCannotBeMadeSpoilsNoOffer) {
    PackAutomatically();
    AcceptAll();
    Waiting("n");
    Waiting("large", "FileSize = 9223372036854775807");
    DirDelete(FileStore::strModuleDataPath + "/Temp", true);
    EXPECT_EQ(Send(), Outcome::Failed);
    EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), Texts{"n"});
    EXPECT_EQ(Names(kUp, "UPLOADING"), Texts{"large"});
}

struct PackedIntakeTest : UpstreamFileTest {
    void SetUp() override {
        UpstreamFileTest::SetUp();
        Fake("CoreUtilsExtractFile ()", [](KelContainer& call) {
            for (const auto& [name, content] : ReadZip(call.GetString("FilePath")))
                WriteFile(call.GetString("DestinationPath") + "/" + name, content);
            return 0U;
        });
    }
    static KelContainer Record(const KelString& name, const KelString& device, const KelString& content,
                               const KelString& entry = "", const KelString& firstRelay = "") {
        return With(Offer("t", TextMd5(content)), {{"FileName", name},
                                                   {"SourceDevice", device},
                                                   {"FirstRelay", firstRelay},
                                                   {"PackedEntry", entry},
                                                   {"FileSize", std::int64_t(content.size())}});
    }
    /// Receives an archive with these records and entries (name, content).
    std::uint64_t Unpack(const KelVector<KelContainer>& records,
                         const KelVector<std::pair<KelString, KelString>>& entries) {
        KelContainer index;
        for (std::uint32_t i = 0; i < records.size(); ++i)
            index.SetContainer("PackedFile", records[i], i);
        const KelString made = Root() + "/made.zip";
        GenericArchive archive(kArchiveZip);
        archive.Create(made);
        archive.AddEntry("Temp/PackedFilesInfo.xml", MakeFile("index", index.SaveToXML()), 6);
        for (const auto& [name, content] : entries)
            archive.AddEntry(name, MakeFile(name, content), 6);
        EXPECT_EQ(archive.Close(), kArchiveDone);
        const std::uint64_t fileId =
            AddStored(kUp, "a.zip", "RECEIVING", "FileType = 'FileStorePackedFiles'");
        const FileStoreEntry row = Load(kUp, fileId);
        WriteFile(row.FilePath, Content(made));
        callbacks_.ReceiveFile(filestore::StoredUrl(kUp, row.Key()));
        return fileId;
    }
    static KelString Entry(const KelString& name, const KelString& content, const KelString& folder = "") {
        return "upstream/t/l/" + TextMd5(content) + "/" + folder + name;
    }
};

TEST_F(PackedIntakeTest, IdenticalFilesOfTwoDevicesEachGetARowWithContent) {
    const KelString folder = filestore::SourceFolder(kOther) + "/";
    Unpack({Record("n", kChild, "x", Entry("n", "x")), Record("n", kOther, "x", Entry("n", "x", folder))},
           {{Entry("n", "x"), "x"}, {Entry("n", "x", folder), "x"}});
    EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), (Texts{"n", "n"}));
    for (const char* device : {kChild, kOther}) {
        const KelString id =
            Cell(kUp, KelFormat("SELECT FileId FROM Files WHERE SourceDevice = '%s'", device));
        EXPECT_EQ(Content(filestore::ContentPath(Load(kUp, std::stoull(id)), kUp)), "x") << device;
    }
}

TEST_F(PackedIntakeTest, ARecordThatCannotEnterStopsNoOther) {
    const KelContainer foreign =
        Record("foreign", "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1", "x");
    Unpack({Record("first", kChild, "1"), With(Record("size", kChild, "x"), {{"FileSize", -5}}), foreign,
            Record("absent", kChild, "2"), Record("damaged", kChild, "3", "", "r"),
            Record("changed", kChild, "4"), Record("last", kChild, "5")},
           {{Entry("first", "1"), "1"},
            {Entry("size", "x"), "x"},
            {Entry("foreign", "x"), "x"},
            {Entry("damaged", "3"), "!"},
            {Entry("changed", "4"), "new"},
            {Entry("last", "5"), "5"}});
    EXPECT_EQ(Names(kUp), (Texts{"first", "changed", "last"}));
    EXPECT_EQ(Cell(kUp, "SELECT FileChecksum, FileSize FROM Files WHERE FileName = 'changed'"),
              TextMd5("new") + "|3");
}

TEST_F(PackedIntakeTest, FailureOfDatabaseOrDiskKeepsTheArchiveForAnotherTry) {
    const KelVector<KelContainer> records = {Record("n", kChild, "x")};
    const KelVector<std::pair<KelString, KelString>> entries = {{Entry("n", "x"), "x"}};
    for (const bool isDiskAtFault : {false, true}) {
        const auto trace = Begin(isDiskAtFault ? "disk" : "database");
        const KelString blocker = FileStore::strStorageLocationToUse + "upstream/t";
        DirDelete(blocker, true);
        std::uint64_t archive = 0;
        {
            std::shared_ptr<void> full;
            if (isDiskAtFault)
                WriteFile(blocker, "where the folder should be");
            else
                full = Refuse(Database(kUp), "INSERT ON Files WHEN NEW.FileName = 'n'");
            archive = Unpack(records, entries);
        }
        EXPECT_EQ(Fields(kUp, archive), "RECEIVING");
        FileDelete(blocker);
        EXPECT_TRUE(callbacks_.ReceiveFile(filestore::StoredUrl(kUp, Load(kUp, archive).Key())));
        EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), Texts{"n"});
        EXPECT_EQ(Count(kUp), "1");
    }
}

}  // namespace

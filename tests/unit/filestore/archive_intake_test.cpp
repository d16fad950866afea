#include "filestore/up/archive_intake.h"
#include "filestore/file_store_fixture.h"
#include "filestore/state/store_layout.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/upload_repair.h"
#include "filestore/up/upstream_file.h"
#include "kelcore/archive.h"
#include "kelcore/archive_extractor.h"

namespace {

/// Archives that children have packed.
struct ArchiveIntakeTest : StoreTest {
    static constexpr const char* kOther = "127.0.1.8:1610/0A1B0000-0000-4000-8000-0000000000C2";
    using Records = KelVector<KelContainer>;
    using Contents = KelVector<std::pair<KelString, KelString>>;  ///< of the entries, by name

    ArchiveIntakeTest() {
        Fake("CoreUtilsExtractFile ()", [](KelContainer& call) {
            const auto layout =
                call.GetBool("Numbered") ? ExtractionLayout::Numbered : ExtractionLayout::Names;
            const KelStatus extracted =
                ExtractArchive(call.GetString("FilePath"), call.GetString("DestinationPath"), {}, layout);
            return extracted ? 0U : extracted.Error().code;
        });
    }
    static KelString Entry(const KelString& name, const KelString& content, const KelString& folder = "") {
        return "upstream/t/l/" + TextMd5(content) + "/" + folder + name;
    }
    /// A child names no path of this device.
    static KelContainer Record(const KelString& name, const KelString& content, Values values = {}) {
        return With(With(Offer("t", TextMd5(content)), {{"FileName", name},
                                                        {"SourceDevice", kChild},
                                                        {"FilePath", "/etc/passwd"},
                                                        {"FileSize", std::int64_t(content.size())}}),
                    values);
    }
    /// A row whose archive has arrived.
    std::uint64_t PutArchive(const Records& records, const Contents& contents, bool hasIndex = true) {
        KelContainer index;
        for (std::uint32_t i = 0; i < records.size(); ++i)
            index.SetContainer("PackedFile", records[i], i);
        const std::uint64_t row = AddStored(kUp, "a.zip", "RECEIVING", "FileType = 'FileStorePackedFiles'");
        GenericArchive archive(kArchiveZip);
        archive.Create(Load(kUp, row).FilePath);
        if (hasIndex) archive.AddEntry("Temp/PackedFilesInfo.xml", MakeFile("index", index.SaveToXML()), 6);
        for (const auto& [name, content] : contents)
            archive.AddEntry(name, MakeFile(name, content), 6);
        EXPECT_EQ(archive.Close(), kArchiveDone);
        return row;
    }
    bool Receive(std::uint64_t row) {
        return callbacks_.ReceiveFile(filestore::StoredUrl(kUp, Load(kUp, row).Key()));
    }
    Exposed<FileStoreCallbackThread> callbacks_;
};

TEST_F(ArchiveIntakeTest, FilesBecomeRowsWithContentOfEachDeviceAndTheArchiveGoes) {
    const KelString folder = filestore::SourceFolder(kOther) + "/";
    const KelString mine = Entry("n", "x"), others = Entry("n", "x", folder);
    const std::uint64_t row =
        PutArchive({Record("it's", "of an older agent"), Record("n", "x", {{"PackedEntry", mine}}),
                    Record("n", "x", {{"PackedEntry", others}, {"SourceDevice", kOther}})},
                   {{Entry("it's", "of an older agent"), "of an older agent"}, {mine, "x"}, {others, "x"}});
    const KelString archive = Load(kUp, row).FilePath;
    EXPECT_TRUE(Receive(row));
    EXPECT_FALSE(FileExists(archive));
    const KelString state = "|TOBEUPLOADED|";
    EXPECT_EQ(Files(kUp, "FileName, FileStatus, SourceDevice"),
              (Texts{"it's" + state + kChild, "n" + state + kChild, "n" + state + kOther}));
    KelString contents;
    for (const KelString& id : Files(kUp, "FileId"))
        contents += Content(filestore::ContentPath(Load(kUp, std::stoull(id)), kUp));
    EXPECT_EQ(contents, "of an older agentxx");
    EXPECT_EQ(DirList(FileStore::strStorageLocationToUse + "/Temp"), Texts{});
}

TEST_F(ArchiveIntakeTest, ArchiveOfAClientHasNoFilesOfOtherDevices) {
    const std::uint64_t row =
        PutArchive({Record("other", "x", {{"SourceDevice", kOther}}), Record("own", "y")},
                   {{Entry("other", "x"), "x"}, {Entry("own", "y"), "y"}});
    Rows(kUp, KelString("UPDATE Files SET SourceDevice = '") + kChild + "', FileInfo = '" +
                  filestore::InfoOfOwnFiles() + "'");
    EXPECT_TRUE(Receive(row));
    EXPECT_EQ(Files(kUp, "FileName"), Texts{"own"});
}

/// What reaches beyond the upstream files is not even unpacked.
TEST_F(ArchiveIntakeTest, ArchiveThatCannotBeUsedLeavesNoRows) {
    for (const auto& [name, entry, extractions, stays] : Table<KelString, const char*, std::size_t, bool>{
             {"no index", "upstream/t/l/c/b", 1, true},
             {"nothing in the index", "upstream/t/l/c/b", 1, false},
             {"database", "Callback.sqlite", 0, true},
             {"downstream file", "downstream/t/l/c/n", 0, true},
             {"short path", "upstream/t/l/n", 0, true},
             {"other than the index", "Temp/other.xml", 0, true},
             {"extraction fails", "upstream/t/l/c/b", 5, true}}) {
        const auto trace = Begin(name);
        if (name == "extraction fails") FakeResult("CoreUtilsExtractFile ()", 16003);
        const std::size_t callsBefore = CallsOf("CoreUtilsExtractFile").size();
        const Records records = name.starts_with("no") ? Records{} : Records{Record("a", "a")};
        const std::uint64_t row =
            PutArchive(records, {{Entry("a", "a"), "a"}, {entry, "b"}}, name != "no index");
        const KelString archive = Load(kUp, row).FilePath;
        EXPECT_TRUE(Receive(row));
        EXPECT_EQ(CallsOf("CoreUtilsExtractFile").size() - callsBefore, extractions);
        EXPECT_EQ(Files(kUp, "FileStatus"), stays ? Texts{"RECEIVING"} : Texts{});
        EXPECT_FALSE(FileExists(archive));
    }
}

TEST_F(ArchiveIntakeTest, RecordThatCannotEnterStopsNoOther) {
    Receive(PutArchive(
        {Record("first", "1"), Record("size", "x", {{"FileSize", -5}}),
         Record("foreign", "x", {{"SourceDevice", "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1"}}),
         Record("absent", "2"), Record("damaged", "3", {{"FirstRelay", "r"}}), Record("changed", "4"),
         Record("last", "5")},
        {{Entry("first", "1"), "1"},
         {Entry("size", "x"), "x"},
         {Entry("foreign", "x"), "x"},
         {Entry("damaged", "3"), "!"},
         {Entry("changed", "4"), "new"},
         {Entry("last", "5"), "5"}}));
    EXPECT_EQ(Files(kUp, "FileName, FileChecksum, FileSize"),
              (Texts{"first|" + TextMd5("1") + "|1", "changed|" + TextMd5("new") + "|3",
                     "last|" + TextMd5("5") + "|1"}));
}

TEST_F(ArchiveIntakeTest, FailureOfTheDatabaseKeepsTheArchiveForAnotherTry) {
    const std::uint64_t archive = PutArchive({Record("n", "x")}, {{Entry("n", "x"), "x"}});
    {
        const auto full = Refuse(kUp, "INSERT ON Files WHEN NEW.FileName = 'n'");
        EXPECT_FALSE(Receive(archive));
    }
    EXPECT_EQ(OnlyFields(kUp), "RECEIVING");
    EXPECT_TRUE(Receive(archive));
    EXPECT_EQ(OnlyFields(kUp, "FileName, FileStatus"), "n|TOBEUPLOADED");
}

TEST_F(ArchiveIntakeTest, RepairQueuesWhatArrivedEvenBeforeTheStoreMoved) {
    PutArchive({Record("a", "a")}, {{Entry("a", "a"), "a"}});
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

}  // namespace

#include <filesystem>

#include "filestore/push_fixture.h"
#include "kelcore/archive.h"
#include "read_zip.h"

namespace {

constexpr const char* kArchive = "FileType = 'FileStorePackedFiles'";
constexpr const char* kLarge = "FileSize = 9223372036854775807";

struct PackingTest : PushTest {
    PackingTest() { AcceptAll(); }
    static void Pack(const KelString& mode, const KelString& excluded = "") {
        const KelContainer policy = Make({{"ConcatFiles", mode}, {"ExcludedFileType", excluded}});
        ChangeSettings(policy);
    }
    /// Two files gathered for an archive whose index is made.
    void GatherTwo(const Texts& more = {}) {
        Pack("auto");
        for (const Texts& names : {gathered_, more})
            for (const KelString& name : names)
                Waiting(name);
        ASSERT_EQ(Send(), Outcome::Done);
    }
    static Texts LeftOvers() { return DirList(FileStore::strModuleDataPath + "/Temp"); }

    const Texts gathered_ = {"a", "it's"};
};

TEST_F(PackingTest, PolicyChoosesTheFiles) {
    const Texts all = {"a", "b", "archive", "bypass"}, packable = {"a", "b"}, archive = {"archive"};
    enum { Normal, Demanded, ArchivesOnly };
    for (const auto& [packing, excluded, pass, outcome, offered, packed] :
         Table<const char*, const char*, int, Outcome, Texts, Texts>{
             {"none", "", Normal, Outcome::Done, all, {}},
             {"auto", "", Normal, Outcome::Done, archive, packable},
             {"manual", "", Normal, Outcome::Nothing, {}, {}},
             {"manual", "B, C", Normal, Outcome::Done, {}, {"b"}},
             {"manual", "B", Demanded, Outcome::Done, archive, packable},
             {"none", "", Demanded, Outcome::Done, archive, packable},
             {"manual", "", ArchivesOnly, Outcome::Done, archive, {}}}) {
        const auto trace = Begin(KelFormat("packing %s, excluded '%s', pass %d", packing, excluded, pass));
        AcceptAll();
        Waiting("a", "FileType = 'A'");
        Waiting("b", "FileType = 'B'");
        Waiting("archive", kArchive);
        Waiting("bypass", "FileType = 'A', Bypass = 1");
        Pack(packing, excluded);
        FileStore::fProcessManualUpload = pass == Demanded;
        EXPECT_EQ(Send(pass == ArchivesOnly), outcome);
        EXPECT_EQ(RequestedNames(), offered);
        EXPECT_EQ(Names(kUp, "TOBEPACKED"), packed);
    }
}

TEST_F(PackingTest, WhatIsTooMuchForAnArchiveTravelsAloneOrInTheNextOne) {
    // Two of these are too much for one index.
    const KelString info = SetInfo(Make({{"Fact", KelString(17 << 20, 'x')}}));
    Pack("auto");
    for (const auto& [name, set, bytes, offered, packed] :
         Table<const char*, KelString, std::uintmax_t, Texts, Texts>{
             {"announced size", kLarge, 5, {"large"}, {"a", "b"}},
             {"size of the content", "FileSize = 1", std::uintmax_t{2} << 30, {"large"}, {"a", "b"}},
             {"information of both", info, 5, {}, {"a"}}}) {
        const auto trace = Begin(name);
        AcceptAll();
        Waiting("a", offered.empty() ? info : "");
        std::filesystem::resize_file(Load(kUp, Waiting("large", set)).FilePath, bytes);
        Waiting("b");
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(RequestedNames(), offered);
        EXPECT_EQ(Names(kUp, "TOBEPACKED"), packed);
    }
}

TEST_F(PackingTest, ArchiveHoldsWhatItsIndexNamesAndEntersTheStore) {
    FileStore::uMaxFilesToConcat = 2;
    GatherTwo({"left for the next"});
    EXPECT_TRUE(reached_);
    const auto begun = ReadZip(FileStore::strArchiveFilePath);
    ASSERT_EQ(begun.size(), 1U);
    EXPECT_EQ(begun[0].first, "Temp/PackedFilesInfo.xml");
    const KelContainer index = FromXml(begun[0].second);
    ASSERT_EQ(index.Count("PackedFile"), 2U);
    EXPECT_EQ(Read(index.GetContainer("PackedFile", 1), "FileName FileSize SourceDevice"),
              KelString("it's|4|") + kChild);

    AddStored(kUp, "not in the index", "TOBEPACKED");
    FileStore::uMaxFilesToConcat = 50;
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "PACKEDFILE"), gathered_);
    EXPECT_EQ(Names(kUp, "TOBEPACKED"), Texts{"not in the index"});
    EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), Texts{"left for the next"});
    EXPECT_EQ(FileStore::strArchiveFilePath, "");

    const KelString where = KelFormat(" FROM Files WHERE %s", kArchive);
    const KelString path = Cell(kUp, "SELECT FilePath" + where);
    EXPECT_EQ(Cell(kUp, "SELECT FileStatus, SourceDevice, FileChecksum, substr(FileName, 1, 12)" + where),
              KelFormat("TOBEHANDLED|%s|%S|PACKEDFILES_", kOwnUrl, TextMd5(Content(path))));
    const auto entries = ReadZip(path);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0], begun[0]);
    for (const std::size_t i : {0U, 1U})
        EXPECT_EQ(entries[i + 1], std::pair("upstream/t/l/c/" + gathered_[i], gathered_[i]));
    EXPECT_EQ(LeftOvers(), Texts{});
}

TEST_F(PackingTest, ArchiveHoldsNoNameTwiceAndNoBypassFilesAmongOthers) {
    Pack("auto");
    for (const auto& [name, set] : Table<const char*, const char*>{
             {"n", ""}, {"n", "Priority = 7"}, {"bypass", "Bypass = 1"}})  // twice the same place
        Waiting(name, set);
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "TOBEPACKED"), Texts{"n"});
    EXPECT_EQ(Upload(), Outcome::Done);
    CloseWindow(FileStore::bmTrackUsageUp);
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(kUp, "PACKEDFILE"), (Texts{"n", "bypass"}));
    EXPECT_EQ(Rows(kUp, KelFormat("SELECT Bypass FROM Files WHERE %s ORDER BY FileId", kArchive)),
              (Texts{"0", "1"}));
}

/// Whatever goes wrong with the archive, its files wait for the next one.
TEST_F(PackingTest, FailedArchiveIsDroppedAndItsFilesKeepWaiting) {
    const auto addTwice = [this] {
        GenericArchive archive(FileStore::eArchiveType);
        archive.Open(FileStore::strArchiveFilePath);
        archive.AddEntry("upstream/t/l/c/it's", MakeFile("other", "x"), 6);
        archive.Close();
    };
    for (const auto& [name, spoil] : Table<const char*, std::function<void()>>{
             {"archive gone", [] { FileDelete(FileStore::strArchiveFilePath); }},
             {"archive damaged", [] { WriteFile(FileStore::strArchiveFilePath, "no archive"); }},
             {"entry refused", addTwice}}) {
        const auto trace = Begin(name);
        GatherTwo();
        spoil();
        Upload();
        EXPECT_EQ(Names(kUp, "TOBEPACKED"), gathered_);
        EXPECT_EQ(Count(kUp), "2");
        EXPECT_EQ(FileStore::strArchiveFilePath, "");
        EXPECT_EQ(LeftOvers(), Texts{});
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(Names(kUp, "PACKEDFILE"), gathered_);
    }
}

/// What the parent has accepted is recorded even when the archive for the other files cannot be made.
TEST_F(PackingTest, ArchiveThatCannotBeMadeSpoilsNoOffer) {
    Pack("auto");
    Waiting("n");
    Waiting("large", kLarge);
    DirDelete(FileStore::strModuleDataPath + "/Temp", true);
    EXPECT_EQ(Send(), Outcome::Failed);
    EXPECT_EQ(Files(kUp, "FileStatus"), (Texts{"TOBEUPLOADED", "UPLOADING"}));
}

TEST_F(PackingTest, ArchiveThatTheStoreRefusesIsTriedOnceInAStepAndDropped) {
    Pack("auto");
    for (const KelString& name : gathered_)
        Waiting(name);
    int tries = 0;
    Fake("FileStoreReceiveFile ()", [&tries](KelContainer&) {
        if (++tries == 10) FileStore::uCurrent = FileStore::uLimit + 1;  // ends a step that would not
        return 1U;
    });
    for (const int step : {1, 2}) {
        push_.DoWork();
        EXPECT_LE(tries, step);
    }
    EXPECT_GT(tries, 0);
    EXPECT_EQ(Names(kUp, "TOBEPACKED"), gathered_);
    EXPECT_EQ(LeftOvers(), Texts{});
}

TEST_F(PackingTest, ManualUploadPacksWhatItCountedOnceTheWindowIsOpenAndEnds) {
    const KelString absent = "FileName = 'absent'";
    for (const auto& [name, files, third, isClosed] :  // a third row is not packed
         Table<const char*, Texts, KelString, bool>{{"an archive", {"a", "b"}, kArchive, false},
                                                    {"an absent file", {"a", "b"}, absent, false},
                                                    {"nothing to upload", {}, "", false},
                                                    {"closed window", {"a"}, "", true}}) {
        const auto trace = Begin(name);
        AcceptAll();
        for (const KelString& file : files)
            Waiting(file);
        const std::uint64_t thirdId = third.empty() ? 0 : Waiting("x", third);
        if (third == absent) FileDelete(Load(kUp, thirdId).FilePath);
        if (isClosed) CloseWindow(FileStore::bmTrackUsageUp);
        Ask("FileStorePerformManualUpload");
        push_.DoWork();
        EXPECT_TRUE(FileStore::fProcessManualUpload || !isClosed);
        FileStore::bmTrackUsageUp.ClearWindow();
        for (int step = 0; step < 2; ++step)
            push_.DoWork();
        EXPECT_FALSE(FileStore::fProcessManualUpload);
        EXPECT_EQ(FileStore::uLimit + FileStore::uCurrent, 0U);
        EXPECT_EQ(Names(kUp, "PACKEDFILE"), files);
    }
}

TEST_F(PackingTest, ManualUploadOutlastsManyArchivesAndAFailedUpload) {
    AnswerAsParent([](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.method == "PUT") return {.status = request.target.ends_with("large") ? 507U : 201U};
        return TestHttpServer::ActionResult(0, Make({{"FileURL", "/large"}}));
    });
    Pack("manual");
    FileStore::uMaxFilesToConcat = 1;
    for (const char* name : {"a", "b", "c"})
        Waiting(name);
    Waiting("large", kLarge);
    Ask("FileStorePerformManualUpload");
    for (int step = 0; step < 3; ++step)
        push_.DoWork();
    EXPECT_EQ(Names(kUp, "PACKEDFILE"), (Texts{"a", "b", "c"}));
    EXPECT_TRUE(FileStore::fProcessManualUpload) << "the large file is still to be sent";
    Rows(kUp, "DELETE FROM Files WHERE FileName = 'large'");
    push_.DoWork();
    EXPECT_FALSE(FileStore::fProcessManualUpload);
}

}  // namespace

#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/archive.h"

using namespace filestore;

namespace {

class UploadStepTest : public PushTest {
  protected:
    static unsigned long Announced(const KelString& name, const KelString& set = "Bypass = 0") {
        return AddStored(true, name, kStatusUploading,
                         KelFormat("FileURL = '/FileStore/upstream/a b#''ü/%S', %S", name, set));
    }
    /// Two files gathered for an archive whose index is made.
    void GatherTwo() {
        AcceptAll();
        FileStore::fConcatFiles = FileStore::fAutoConcat = true;
        for (const KelString& name : gathered_)
            AddStored(true, name, kStatusToBeUploaded);
        ASSERT_EQ(Send(), Outcome::Done);
    }
    static KelString TempFolder() { return FileStore::strModuleDataPath + "/Temp"; }

    const KelVector<KelString> gathered_ = {"a", "it's"};
};

TEST_F(UploadStepTest, PutsTheContentUnderTheParentsUrl) {
    AcceptAll();
    for (const KelString name : {"0", "1"}) {
        const unsigned long fileId = Announced(name, "Bypass = " + name);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(StatusOf(true, fileId), kStatusAvailable);
        EXPECT_EQ(Parent().Requests().back().path, "/FileStore/upstream/a%20b%23%27%C3%BC/" + name);
        EXPECT_EQ(Parent().Requests().back().body, name);
    }
    EXPECT_EQ(Upload(), Outcome::Nothing);
}

TEST_F(UploadStepTest, ExternalFileTravelsFromWhereItLies) {
    AcceptAll();
    const KelString outside = Root() + "/outside";
    const unsigned long fileId =
        AddStored(true, "e", kStatusToBeHandled, "ExternalFile = 1, FilePath = '" + outside + "'");
    EXPECT_TRUE(FileStore::threadHandler.HandleFile(true));
    ASSERT_EQ(StatusOf(true, fileId), kStatusToBeUploaded);
    EXPECT_EQ(Send(), Outcome::Done);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Parent().Requests().back().body, "e");
    EXPECT_TRUE(FileExists(outside));
}

TEST_F(UploadStepTest, AbsentFilesLoseTheirRows) {
    AcceptAll();
    for (const char* name : {"a", "b"})
        EXPECT_TRUE(FileDelete(Load(true, Announced(name)).FilePath));
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(UploadStepTest, FailedPutKeepsTheWholeBatchAndStandsBehindTheOthers) {
    AnswerAsParent([](const ScriptedServer::Request& request) -> ScriptedServer::Answer {
        return {request.path.ends_with("second") ? 507U : 201U};
    });
    const unsigned long first = Announced("first");
    const unsigned long second = Announced("second");
    Announced("third");
    EXPECT_EQ(Upload(), Outcome::Failed);
    EXPECT_EQ(Names(true, kStatusUploading), (KelVector<KelString>{"first", "second", "third"}));
    EXPECT_FALSE(IsNew(true, first));
    EXPECT_TRUE(IsNew(true, second));
    EXPECT_EQ(Parent().Requests().size(), 2U);

    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(true, kStatusAvailable), (KelVector<KelString>{"first", "third"}));
    EXPECT_EQ(StatusOf(true, second), kStatusUploading);
}

TEST_F(UploadStepTest, ArchiveHoldsWhatItsIndexNamesAndEntersTheStore) {
    GatherTwo();
    AddStored(true, "not in the index", kStatusToBePacked);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(Names(true, kStatusPackedFile), gathered_);
    EXPECT_EQ(Names(true, kStatusToBePacked), KelVector<KelString>{"not in the index"});
    EXPECT_EQ(FileStore::strArchiveFilePath, "");

    FileStoreEntry archive;
    ASSERT_TRUE(archive.LoadFromDatabase("FileType = 'FileStorePackedFiles'", true));
    EXPECT_EQ(archive.FileStatus, kStatusToBeHandled);
    EXPECT_TRUE(archive.FileName.starts_with("PACKEDFILES_")) << archive.FileName;
    EXPECT_EQ(archive.SourceDevice, kOwnUrl);
    EXPECT_EQ(archive.FileChecksum, TextMd5(Content(archive.FilePath)));
    const auto entries = ArchiveContent(archive.FilePath);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].first, "Temp/PackedFilesInfo.xml");
    for (const std::size_t i : {0U, 1U})
        EXPECT_EQ(entries[i + 1], std::pair("upstream/" + (kKeyFolder + gathered_[i]), gathered_[i]));
    EXPECT_EQ(DirList(TempFolder()), KelVector<KelString>{});
}

/// Whatever goes wrong with the archive, its files wait for the next one, which takes them up.
TEST_F(UploadStepTest, FailedArchiveIsDroppedAndItsFilesKeepWaiting) {
    const auto addTwice = [this] {
        GenericArchive archive(FileStore::eArchiveType);
        archive.Open(FileStore::strArchiveFilePath);
        archive.AddEntry(KelString("upstream/") + kKeyFolder + "it's", MakeFile("other", "x"), 6);
        archive.Close();
    };
    for (const auto& [name, spoil] : Table<const char*, std::function<void()>>{
             {"archive gone", [] { FileDelete(FileStore::strArchiveFilePath); }},
             {"archive damaged", [] { WriteFile(FileStore::strArchiveFilePath, "no archive"); }},
             {"entry refused", addTwice},
             {"not taken by the store", [this] { FakeResult("FileStoreReceiveFile ()", 1); }}}) {
        SCOPED_TRACE(name);
        DeleteRows();
        GatherTwo();
        spoil();
        Upload();
        EXPECT_EQ(Names(true), gathered_);
        EXPECT_EQ(Names(true, kStatusToBePacked), gathered_);
        EXPECT_EQ(FileStore::strArchiveFilePath, "");
        EXPECT_EQ(DirList(TempFolder()), KelVector<KelString>{});
        if (KelString(name) == "not taken by the store") break;
        EXPECT_EQ(Send(), Outcome::Done);
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_EQ(Names(true, kStatusPackedFile), gathered_);
    }
}

TEST_F(UploadStepTest, ArchiveThatTheStoreDoesNotTakeIsTriedOnceInAStep) {
    AcceptAll();
    FileStore::fConcatFiles = FileStore::fAutoConcat = true;
    for (const KelString& name : gathered_)
        AddStored(true, name, kStatusToBeUploaded);
    int tries = 0;
    Fake("FileStoreReceiveFile ()", [&tries](KelContainer&) {
        if (++tries == 10) FileStore::uCurrent = FileStore::uLimit + 1;  // ends a step that would not
        return 1U;
    });
    push_.DoWork();
    push_.DoWork();
    EXPECT_LE(tries, 2);
    EXPECT_EQ(Names(true, kStatusToBePacked), gathered_);
    FileStore::uCurrent = 0;
}

TEST_F(UploadStepTest, StepAnnouncesAndPutsEverythingThatWaits) {
    AcceptAll();
    for (int i = 0; i < 60; ++i)
        AddStored(true, KelFormat("file%d", i), kStatusToBeUploaded);
    push_.DoWork();  // begins with what an earlier run had announced: nothing
    push_.DoWork();
    EXPECT_EQ(Names(true, kStatusAvailable).size(), 60U);
    EXPECT_EQ(OfferedNames().size(), 60U);
    EXPECT_EQ(Parent().Requests().size(), 120U) << "an offer and a PUT each";
}

TEST_F(UploadStepTest, ManualUploadPacksWhatItCountedAndEnds) {
    // Two files, and a third row that is not packed.
    for (const auto& [name, files, thirdType] : Table<const char*, KelVector<KelString>, KelString>{
             {"files only", {"a", "b"}, ""},
             {"an archive", {"a", "b"}, "FileStorePackedFiles"},
             {"an absent file", {"a", "b"}, "Type"},
             {"nothing to upload", {}, ""}}) {
        SCOPED_TRACE(name);
        DeleteRows();
        AcceptAll();
        for (const KelString& file : files)
            AddStored(true, file, kStatusToBeUploaded);
        if (!thirdType.empty()) {
            const auto third =
                AddStored(true, "x", kStatusToBeUploaded, KelFormat("FileType = '%S'", thirdType));
            if (thirdType == "Type") FileDelete(Load(true, third).FilePath);
        }
        KelContainer request;
        EXPECT_EQ(FileStore::ActionHandler_FileStorePerformManualUpload(&request), 0U);
        push_.DoWork();
        push_.DoWork();
        EXPECT_FALSE(FileStore::fProcessManualUpload);
        EXPECT_TRUE(FileStore::uLimit == 0 && FileStore::uCurrent == 0);
        EXPECT_EQ(Names(true, kStatusPackedFile), files);
    }
}

TEST_F(UploadStepTest, ManualUploadWaitsForTheWindow) {
    AcceptAll();
    AddStored(true, "a", kStatusToBeUploaded);
    CloseWindow(FileStore::bmTrackUsageUp);
    KelContainer request;
    EXPECT_EQ(FileStore::ActionHandler_FileStorePerformManualUpload(&request), 0U);
    push_.DoWork();
    EXPECT_TRUE(FileStore::fProcessManualUpload);
    FileStore::bmTrackUsageUp.ClearWindow();
    push_.DoWork();
    push_.DoWork();
    EXPECT_EQ(Names(true, kStatusPackedFile), KelVector<KelString>{"a"});
    EXPECT_FALSE(FileStore::fProcessManualUpload);
}

}  // namespace

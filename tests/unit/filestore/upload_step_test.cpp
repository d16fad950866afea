#include <ctime>

#include "filestore/archive_content.h"
#include "filestore/upstream_fixture.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/archive.h"

using namespace filestore;

namespace {

class UploadStepTest : public UpstreamTest {
  protected:
    static unsigned long Announced(const KelString& name,
                                   const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddStored(name, kStatusUploading, [&](FileStoreEntry& entry) {
            entry.FileURL = "/FileStore/upstream/a b#'ü/" + name;
            if (change) change(entry);
        });
    }
    Outcome Upload() {
        reached_ = false;
        return push_.UploadFile(reached_, false);
    }
    /// Two files gathered for an archive whose index is made.
    void GatherTwo() {
        AcceptAll();
        FileStore::fConcatFiles = FileStore::fAutoConcat = true;
        first_ = AddStored("a", kStatusToBeUploaded);
        second_ = AddStored("it's", kStatusToBeUploaded);
        ASSERT_EQ(push_.SendFile(reached_, false), Outcome::Done);
    }
    KelVector<KelString> PutPaths() const {
        KelVector<KelString> paths;
        for (const auto& request : Parent().Requests())
            if (request.method == "PUT") paths.push_back(request.path);
        return paths;
    }
    static KelString TempFolder() { return FileStore::strModuleDataPath + "/Temp"; }

    Push push_;
    bool reached_ = false;
    unsigned long first_ = 0, second_ = 0;
};

TEST_F(UploadStepTest, PutsTheContentUnderTheParentsUrl) {
    AcceptAll();
    for (const bool bypass : {false, true}) {
        const unsigned long fileId =
            Announced(bypass ? "b" : "n", [&](FileStoreEntry& entry) { entry.Bypass = bypass; });
        EXPECT_EQ(Upload(), Outcome::Done);
        EXPECT_TRUE(reached_);
        EXPECT_EQ(StatusOf(true, fileId), kStatusAvailable);
        const auto request = Parent().Requests().back();
        EXPECT_EQ(request.path, KelString("/FileStore/upstream/a%20b%23%27%C3%BC/") + (bypass ? "b" : "n"));
        EXPECT_EQ(request.body, bypass ? "b" : "n");
    }
    EXPECT_EQ(Upload(), Outcome::Nothing);
}

TEST_F(UploadStepTest, ExternalFileTravelsFromWhereItLies) {
    AcceptAll();
    const KelString outside = Root() + "/outside";
    const unsigned long fileId = Announced("e", [&](FileStoreEntry& entry) {
        entry.ExternalFile = true;
        entry.FilePath = outside;
        entry.FileStatus = kStatusToBeHandled;
    });
    EXPECT_TRUE(FileStore::threadHandler.HandleFile(true));
    ASSERT_EQ(StatusOf(true, fileId), kStatusToBeUploaded);
    EXPECT_EQ(push_.SendFile(reached_, false), Outcome::Done);
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
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "PushThread: File " + FileStore::strStorageLocationToUse));
    EXPECT_TRUE(Parent().Requests().empty());
}

TEST_F(UploadStepTest, FailedPutKeepsTheWholeBatchAndStandsBehindTheOthers) {
    AnswerAsParent([](const ScriptedServer::Request& request) -> ScriptedServer::Answer {
        return {request.path.ends_with("second") ? 507U : 201U, "", "", SIZE_MAX};
    });
    const unsigned long first = Announced("first");
    const unsigned long second = Announced("second");
    const unsigned long third = Announced("third");
    EXPECT_EQ(Upload(), Outcome::Failed);
    for (const unsigned long fileId : {first, second, third})
        EXPECT_EQ(StatusOf(true, fileId), kStatusUploading);
    EXPECT_EQ(Load(true, first).LastStatusChangeTime, 0);
    EXPECT_TRUE(JustNow(Load(true, second).LastStatusChangeTime));
    EXPECT_EQ(PutPaths().size(), 2U);

    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(StatusOf(true, first), kStatusAvailable);
    EXPECT_EQ(StatusOf(true, second), kStatusUploading);
    EXPECT_EQ(StatusOf(true, third), kStatusAvailable);
}

TEST_F(UploadStepTest, NothingMovesWithoutAParent) {
    const unsigned long fileId = Announced("n");
    relayValues.SetBool("ParentSync", false);
    EXPECT_EQ(Upload(), Outcome::Failed);
    EXPECT_EQ(Load(true, fileId).LastStatusChangeTime, 0);
}

TEST_F(UploadStepTest, ArchiveHoldsWhatItsIndexNamesAndEntersTheStore) {
    GatherTwo();
    const unsigned long late = AddStored("not in the index", kStatusToBePacked);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(StatusOf(true, first_), kStatusPackedFile);
    EXPECT_EQ(StatusOf(true, second_), kStatusPackedFile);
    EXPECT_EQ(StatusOf(true, late), kStatusToBePacked);
    EXPECT_EQ(FileStore::strArchiveFilePath, "");

    FileStoreEntry archive;
    ASSERT_TRUE(archive.LoadFromDatabase("FileType = 'FileStorePackedFiles'", true));
    EXPECT_EQ(archive.FileStatus, kStatusToBeHandled);
    EXPECT_TRUE(archive.FileName.starts_with("PACKEDFILES_")) << archive.FileName;
    EXPECT_EQ(archive.SourceDevice, kOwnUrl);
    KelString checksum;
    ASSERT_TRUE(FileMd5(archive.FilePath, checksum));
    EXPECT_EQ(archive.FileChecksum, checksum);
    const auto entries = ArchiveContent(archive.FilePath);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].first, "Temp/PackedFilesInfo.xml");
    const KelString folder = "upstream/Type/Label/0123456789abcdef0123456789abcdef/";
    EXPECT_EQ(entries[1], (std::pair<KelString, KelString>(folder + "a", "a")));
    EXPECT_EQ(entries[2], (std::pair<KelString, KelString>(folder + "it's", "it's")));
    EXPECT_EQ(DirList(TempFolder()), KelVector<KelString>{});
}

/// Whatever goes wrong with the archive, its files wait for the next one.
TEST_F(UploadStepTest, FailedArchiveIsDroppedAndItsFilesKeepWaiting) {
    struct Case {
        const char* name;
        std::function<void()> spoil;
        const char* message;
    };
    const Case cases[] = {
        {"archive gone", [] { FileDelete(FileStore::strArchiveFilePath); }, "cannot be found"},
        {"archive damaged", [] { WriteFile(FileStore::strArchiveFilePath, "no archive"); },
         "cannot be found"},
        {"entry refused",
         [this] {
             GenericArchive archive(FileStore::eArchiveType);
             archive.Open(FileStore::strArchiveFilePath);
             archive.AddEntry("upstream/Type/Label/0123456789abcdef0123456789abcdef/it's",
                              MakeFile("other", "x"), 6);
             archive.Close();
         },
         "Failed to add file it's to archive"},
        {"not taken by the store", [this] { FakeResult("FileStoreReceiveFile ()", 1); },
         "did not take archive"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        GatherTwo();
        test.spoil();
        Upload();
        EXPECT_TRUE(HasLogged(KelDebugLevel::Error, test.message));
        EXPECT_EQ(StatusOf(true, first_), kStatusToBePacked);
        EXPECT_EQ(StatusOf(true, second_), kStatusToBePacked);
        EXPECT_EQ(Count(Upstream(), "Files"), "2");
        EXPECT_EQ(FileStore::strArchiveFilePath, "");
        EXPECT_EQ(DirList(TempFolder()), KelVector<KelString>{});
    }
}

/// The next send pass takes the files of a lost archive up again.
TEST_F(UploadStepTest, FilesOfALostArchiveArePackedAnew) {
    GatherTwo();
    FileDelete(FileStore::strArchiveFilePath);
    Upload();
    EXPECT_EQ(push_.SendFile(reached_, false), Outcome::Done);
    EXPECT_EQ(Upload(), Outcome::Done);
    EXPECT_EQ(StatusOf(true, first_), kStatusPackedFile);
    EXPECT_EQ(StatusOf(true, second_), kStatusPackedFile);
}

TEST_F(UploadStepTest, StepAnnouncesAndPutsEverythingThatWaits) {
    AcceptAll();
    for (int i = 0; i < 60; ++i)
        AddStored(KelFormat("file%d", i), kStatusToBeUploaded);
    push_.DoWork();  // begins with what an earlier run had announced: nothing
    push_.DoWork();
    EXPECT_EQ(Rows(Upstream(), "SELECT FileStatus, COUNT(*) FROM Files GROUP BY FileStatus"),
              KelVector<KelString>{KelString(kStatusAvailable) + "|60"});
    EXPECT_EQ(PutPaths().size(), 60U);
}

TEST_F(UploadStepTest, ManualUploadPacksWhatItCountedAndEnds) {
    struct Case {
        const char* name;
        const char* extra;  ///< a third counted row
        std::function<void()> prepare;
    };
    const Case cases[] = {
        {"files only", "", [] {}},
        {"an archive among them", "FileStorePackedFiles", [] {}},
        {"an absent file among them", "Type",
         [] { FileDelete(Load(true, AddStored("x", kStatusToBeUploaded)).FilePath); }},
        {"nothing to upload", nullptr, [] {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        AcceptAll();
        if (test.extra != nullptr) {
            for (const char* name : {"a", "b"})
                AddStored(name, kStatusToBeUploaded);
            if (KelString(test.extra) == "FileStorePackedFiles")
                AddStored("x", kStatusToBeUploaded,
                          [](FileStoreEntry& entry) { entry.FileType = "FileStorePackedFiles"; });
        }
        test.prepare();
        KelContainer request;
        EXPECT_EQ(FileStore::ActionHandler_FileStorePerformManualUpload(&request), 0U);
        EXPECT_TRUE(FileStore::fManualUploadRequested);
        push_.DoWork();
        push_.DoWork();
        EXPECT_FALSE(FileStore::fProcessManualUpload);
        EXPECT_EQ(FileStore::uLimit, 0U);
        EXPECT_EQ(FileStore::uCurrent, 0U);
        EXPECT_EQ(Rows(Upstream(),
                       "SELECT FileName FROM Files WHERE FileStatus = "
                       "'_AGTMOD_FILESTORESTATUS_PACKEDFILE_' ORDER BY FileName"),
                  test.extra == nullptr ? KelVector<KelString>{} : (KelVector<KelString>{"a", "b"}));
    }
    EXPECT_TRUE(HasLogged(KelDebugLevel::Print, "Start manual upload process (2 files to upload)."));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Print, "Manual upload process finished."));
}

}  // namespace

#include "filestore/file_store_fixture.h"
#include "kel/file.h"

#include <filesystem>

namespace {

class StorageLocation : public FileStoreTest {
  protected:
    static KelString Recorded() {
        return Cell(Downstream(),
                    "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'FileStorageCurrentPath'");
    }
    void RestartWith(const KelString& location) {
        SetIni("Directories", "FileStorage", location);
        CleanUp();
        Initialise();
    }
    /// A file of the store with its row; its path.
    static KelString AddStored() {
        const KelString path = FileStore::StorePath(false, "Type", "Label", "c", "n");
        WriteFile(path, "content");
        AddFile(false, "n", filestore::kStatusAvailable, "FilePath = '" + path + "'");
        return path;
    }
};

TEST_F(StorageLocation, SettingIsMadeAbsoluteWithForwardSlashes) {
    for (const char* setting : {"\\srv\\store", "/srv/store/"}) {
        SetIni("Directories", "FileStorage", setting);
        EXPECT_EQ(FileStore::GetFileStorageDirectory(), "/srv/store/");
    }
}

TEST_F(StorageLocation, NewLocationMovesFilesAndPathsBothWays) {
    Initialise();
    EXPECT_EQ(FileStore::strStorageLocationToUse, Root() + "/data/FileStore/");
    const KelString old = AddStored();
    WriteFile(FileStore::StorePath(true, "Type", "Label", "c", "up"), "upward");
    AddFile(false, "x", filestore::kStatusAvailable, "FilePath = '/elsewhere/x'");

    const KelString target = Root() + "/it's new/";
    RestartWith(target);
    EXPECT_EQ(Recorded(), target);
    EXPECT_EQ(Rows(Downstream(), "SELECT FilePath FROM Files ORDER BY FileId"),
              (KelVector<KelString>{target + "downstream/Type/Label/c/n", "/elsewhere/x"}));
    EXPECT_EQ(FileGetSize64(target + "downstream/Type/Label/c/n"), 7);
    EXPECT_EQ(FileGetSize64(target + "upstream/Type/Label/c/up"), 6);
    EXPECT_FALSE(FileExists(old));

    RestartWith("");
    EXPECT_EQ(Recorded(), Root() + "/data/FileStore/");
    EXPECT_EQ(FileGetSize64(old), 7);
}

TEST_F(StorageLocation, FailedMoveLeavesTheStoreInUseWhereItIs) {
    Initialise();
    const KelString store = FileStore::strStorageLocationToUse;
    const KelString old = AddStored();
    WriteFile(Root() + "/blocked", "a file where a folder should go");
    WriteFile(Root() + "/half/upstream", "another");
    std::filesystem::create_directory_symlink(store, Root() + "/link");
    for (const KelString& target : {Root() + "/blocked/", Root() + "/half/", Root() + "/link/",
                                    store + "downstream/", store + "upstream/x/", Root() + "/unrecorded/"}) {
        SCOPED_TRACE(target);
        if (target.ends_with("unrecorded/"))
            Rows(Downstream(),
                 "CREATE TRIGGER full BEFORE UPDATE ON Files BEGIN SELECT RAISE(ABORT, 'full'); END");
        FileStore::strStorageLocationToUse = target;
        EXPECT_FALSE(FileStore::ChangeFileStoragePath());
        EXPECT_EQ(FileStore::strStorageLocationToUse, store);
        EXPECT_EQ(Recorded(), "");
        EXPECT_EQ(Cell(Downstream(), "SELECT FilePath FROM Files"), old);
        EXPECT_EQ(FileGetSize64(old), 7);
    }
}

TEST_F(StorageLocation, OldFolderThatCannotBeRemovedDoesNotUndoTheMove) {
    Initialise();
    const KelString old = FileStore::strStorageLocationToUse;
    WriteFile(Root() + "/disk/Type/Label/c/n", "content");
    std::filesystem::create_directory_symlink(Root() + "/disk", old + "downstream");
    RestartWith(Root() + "/new/");
    EXPECT_EQ(Recorded(), Root() + "/new/");
    EXPECT_EQ(FileGetSize64(FileStore::StorePath(false, "Type", "Label", "c", "n")), 7);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, old + "downstream could not be removed"));
}

TEST_F(StorageLocation, MalformedSettingsMoveNothing) {
    Initialise();
    RestartWith(Root() + "/store/");
    const KelString path = AddStored();
    CleanUp();
    const KelString settings = TempFolder::Read(FileStore::strModuleIniFile);
    TempFolder::Write(FileStore::strModuleIniFile, settings + "junk\n");
    ASSERT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, FileStore::strModuleIniFile));
    EXPECT_EQ(FileGetSize64(path), 7);
    TempFolder::Write(FileStore::strModuleIniFile, settings);
    Initialise();
    EXPECT_EQ(Recorded(), Root() + "/store/");
}

TEST_F(StorageLocation, PortChangeRewritesDevicesOnEveryLevel) {
    Initialise();
    for (const char* source : {"SourceDevice = '10.0.80.1:80/G1'", "SourceDevice = 'nothing'"})
        AddFile(false, "n", filestore::kStatusAvailable, source);
    const auto tree = [](const char* port) {
        const KelContainer child =
            Make({{KelFormat("h2:%s/G2/02/10.0.0.2/255.0.0.0", port), KelContainer()}});
        return Make({{KelFormat("h1:%s/G1/02/10.0.0.1/255.0.0.0", port), child}});
    };
    Rows(Downstream(),
         KelFormat("INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath) VALUES (1, 1, "
                   "'h1:80/G1/02', '%Q'), (2, 1, '', '')",
                   tree("80").SaveToXML()));
    FileStore::UpdateHttpPort();  // nobody asked for it
    EXPECT_EQ(Cell(Downstream(), "SELECT SourceDevice FROM Files"), "10.0.80.1:80/G1");

    Rows(Downstream(),
         "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('HttpPortUpdate', '1')");
    FileStore::UpdateHttpPort();
    EXPECT_EQ(Rows(Downstream(), "SELECT SourceDevice FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"10.0.80.1:1610/G1", "nothing"}));
    EXPECT_EQ(Rows(Downstream(), "SELECT DeviceGUID FROM Targets ORDER BY TargetId"),
              (KelVector<KelString>{"h1:1610/G1/02", ""}));
    EXPECT_EQ(Cell(Downstream(), "SELECT DevicePath FROM Targets"), tree("1610").SaveToXML());
    EXPECT_EQ(Cell(Downstream(), "SELECT 1 FROM DatabaseInformation WHERE FieldName = 'HttpPortUpdate'"), "");
}

TEST_F(StorageLocation, CorruptedPackagesAreAskedForAgain) {
    Initialise();
    const KelString store = FileStore::strStorageLocationToUse;
    // the recorded type and size, where 4 bytes are
    const KelVector<std::tuple<KelString, const char*, const char*>> files = {
        {store + "sound", "OperationalRulePackage", "FileSize = 4"},
        {store + "cut", "OperationalRuleScript", "FileSize = 5"},
        {store + "external", "OperationalRulePackage", "FileSize = 5, ExternalFile = 1"},
        {Root() + "/outside", "OperationalRulePackage", "FileSize = 5"},
        {store + "other", "Anything", "FileSize = 5"}};
    for (const auto& [path, type, set] : files) {
        WriteFile(path, "1234");
        AddFile(false, "n", filestore::kStatusAvailable,
                KelFormat("FilePath = '%S', FileType = '%s', %s", path, type, set));
    }
    const KelString missing = "SELECT FilePath FROM Files WHERE FileStatus LIKE '%MISSING_' ORDER BY FileId";
    FileStore::UpdateScriptAndPackageStatus(1);
    EXPECT_EQ(Rows(Downstream(), missing), KelVector<KelString>());
    FileStore::UpdateScriptAndPackageStatus(0);
    EXPECT_EQ(Rows(Downstream(), missing),
              (KelVector<KelString>{store + "cut", store + "external", Root() + "/outside"}));
    for (const auto& [path, type, set] : files)  // only what is the store's own is removed
        EXPECT_EQ(FileExists(path), path != store + "cut") << path;
}

}  // namespace

#include <filesystem>

#include "filestore/file_store_fixture.h"

namespace {

struct StorageLocation : StoreTest {
    static KelString Recorded() {
        return Cell(kDown,
                    "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'FileStorageCurrentPath'");
    }
    void RestartWith(const KelString& location) {
        SetIni("Directories", "FileStorage", location);
        CleanUp();
        Initialise();
    }
    /// A file of the store with its row; its path.
    static KelString AddContent() { return Load(kDown, AddStored(kDown, "content", "AVAILABLE")).FilePath; }
};

TEST_F(StorageLocation, NewLocationMovesFilesAndPathsBothWays) {
    for (const auto& [setting, location] : Table<const char*, KelString>{
             {"\\srv\\store", "/srv/store/"}, {"store/", FileStore::strModuleDataPath + "/store/"}}) {
        SetIni("Directories", "FileStorage", setting);
        EXPECT_EQ(FileStore::GetFileStorageDirectory(), location);
    }
    const KelString old = AddContent();
    WriteFile(FileStore::StorePath(kUp, {"t", "l", "up", "c"}), "upward");
    AddFile(kDown, "x", "AVAILABLE", "FilePath = '/elsewhere/x'");
    const KelString target = Root() + "/it's new/";
    RestartWith(target);
    EXPECT_EQ(Recorded(), target);
    EXPECT_EQ(Files(kDown, "FilePath"), (Texts{target + "downstream/t/l/c/content", "/elsewhere/x"}));
    EXPECT_EQ(Content(target + "downstream/t/l/c/content") + Content(target + "upstream/t/l/c/up"),
              "contentupward");
    EXPECT_FALSE(FileExists(old));
    RestartWith("");
    EXPECT_EQ(Recorded(), Root() + "/data/FileStore/");
    EXPECT_EQ(Content(old), "content");
}

TEST_F(StorageLocation, FailedMoveLeavesTheStoreInUseWhereItIs) {
    const KelString store = FileStore::strStorageLocationToUse, old = AddContent();
    MakeFile("blocked", "a file where a folder should go");
    MakeFile("half/upstream", "another");
    std::filesystem::create_directory_symlink(store, Root() + "/link");
    std::shared_ptr<void> full;
    for (const KelString& target : {Root() + "/blocked/", Root() + "/half/", Root() + "/link/",
                                    store + "downstream/", store + "upstream/x/", Root() + "/unrecorded/"}) {
        SCOPED_TRACE(target);
        if (target.ends_with("unrecorded/")) full = Refuse(kDown, "UPDATE ON Files");
        FileStore::strStorageLocationToUse = target;
        EXPECT_FALSE(FileStore::ChangeFileStoragePath());
        EXPECT_EQ(FileStore::strStorageLocationToUse, store);
        EXPECT_EQ(Recorded(), "");
        EXPECT_EQ(OnlyFields(kDown, "FilePath"), old);
        EXPECT_EQ(Content(old), "content");
    }
}

TEST_F(StorageLocation, OldFolderThatCannotBeRemovedDoesNotUndoTheMove) {
    MakeFile("disk/t/l/c/n", "content");
    std::filesystem::create_directory_symlink(Root() + "/disk", InStore("downstream"));
    RestartWith(Root() + "/new/");
    EXPECT_EQ(Recorded(), Root() + "/new/");
    EXPECT_EQ(Content(Root() + "/new/downstream/t/l/c/n"), "content");
}

TEST_F(StorageLocation, MalformedSettingsMoveNothing) {
    RestartWith(Root() + "/store/");
    const KelString path = AddContent();
    CleanUp();
    WriteFile(FileStore::strModuleIniFile, Content(FileStore::strModuleIniFile) + "junk\n");
    EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, FileStore::strModuleIniFile));
    EXPECT_EQ(Content(path), "content");
}

TEST_F(StorageLocation, PortChangeRewritesDevicesOnEveryLevel) {
    for (const char* source : {"10.0.80.1:80/G1", "nothing"})
        AddFile(kDown, "n", "AVAILABLE", KelFormat("SourceDevice = '%s'", source));
    const auto tree = [](const char* port) {
        const KelString child = KelFormat("h2:%s/G2/02/10.0.0.2/255.0.0.0", port);
        return Make({{KelFormat("h1:%s/G1/02/10.0.0.1/255.0.0.0", port), Make({{child, KelContainer()}})}})
            .SaveToXML();
    };
    AddTarget(1, 1, "h1:80/G1/02");
    AddTarget(1, 2, "");
    Rows(kDown, KelFormat("UPDATE Targets SET DevicePath = '%Q' WHERE TargetId = 1", tree("80")));
    const KelString none = Cell(kDown, "SELECT DevicePath FROM Targets WHERE TargetId = 2");
    for (const char* port : {"80", "1610"}) {
        if (port == KelString("1610"))  // asked for
            Rows(kDown,
                 "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('HttpPortUpdate', '1')");
        FileStore::UpdateHttpPort();
        EXPECT_EQ(Files(kDown, "SourceDevice"), (Texts{KelFormat("10.0.80.1:%s/G1", port), "nothing"}));
        EXPECT_EQ(Targets("DeviceGUID, DevicePath"),
                  (Texts{KelFormat("h1:%s/G1/02|%S", port, tree(port)), "|" + none}));
    }
    EXPECT_EQ(Cell(kDown, "SELECT 1 FROM DatabaseInformation WHERE FieldName = 'HttpPortUpdate'"), "");
}

TEST_F(StorageLocation, CorruptedPackagesAreAskedForAgain) {
    const char *const package = "OperationalRulePackage", *const script = "OperationalRuleScript";
    const auto stored = [](const char* type, const char* name) {
        return FileStore::StorePath(kDown, {type, "l", name, "c"});
    };
    // the recorded type and size, where 4 bytes are; only what is the store's own is removed
    const Table<KelString, const char*, const char*, bool> files = {
        {stored(package, "sound"), package, "FileSize = 4, FilePath = '/former/place/n'", true},
        {stored(script, "cut"), script, "FileSize = 5", false},
        {stored(package, "external"), package, "FileSize = 5, ExternalFile = 1", true},
        {Root() + "/outside", package, "FileSize = 5", true},
        {stored("Anything", "other"), "Anything", "FileSize = 5", true}};
    for (const auto& [path, type, set, stays] : files) {
        WriteFile(path, "1234");
        AddFile(kDown, std::filesystem::path(path).filename(), "AVAILABLE",
                KelFormat("FilePath = '%S', FileType = '%s', %s", path, type, set));
    }
    FileStore::UpdateScriptAndPackageStatus(1);
    EXPECT_EQ(Names(kDown, "MISSING"), Texts{});
    FileStore::UpdateScriptAndPackageStatus(0);
    EXPECT_EQ(Names(kDown, "MISSING"), (Texts{"cut", "external", "outside"}));
    for (const auto& [path, type, set, stays] : files)
        EXPECT_EQ(FileExists(path), stays) << path;
}

}  // namespace

#include <filesystem>

#include "filestore/db/information_table.h"
#include "filestore/file_store_fixture.h"
#include "kelcore/stopping.h"

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
    const KelString store = FileStore::strStorageLocationToUse, target = Root() + "/it's new/";
    const KelString deep = "downstream/" + KelString(300, 'd') + "/%_", external = "downstream/published/e";
    const KelString otherCase = Root() + "/data/filestore/upstream/case";
    const Table<Side, int, KelString, KelString> rows = {
        {kDown, 0, "/elsewhere/x", "/elsewhere/x"},     {kDown, 0, otherCase, otherCase},
        {kDown, 0, store + deep, target + deep},        {kDown, 1, store + external, target + external},
        {kDown, 1, store + "Temp/x", store + "Temp/x"}, {kUp, 1, store + external, target + external}};
    for (const auto& [side, isExternal, path, later] : rows)
        AddFile(side, path, "AVAILABLE", KelFormat("ExternalFile = %d, FilePath = '%Q'", isExternal, path));
    RestartWith(target);
    EXPECT_EQ(Recorded(), target);
    for (const auto& [side, isExternal, path, later] : rows)
        EXPECT_EQ(Cell(side, KelFormat("SELECT FilePath FROM Files WHERE FileName = '%Q'", path)), later);
    EXPECT_EQ(Load(kDown, 1).FilePath, target + "downstream/t/l/c/content");
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

TEST_F(StorageLocation, WhatAKillHasLeftIsFinishedOrUndoneAtTheNextStart) {
    const KelString store = FileStore::strStorageLocationToUse, target = Root() + "/target/";
    const KelString content = "downstream/t/l/c/content", part = "upstream/t/l/c/part";
    AddContent();
    // What was to be removed, the setting at the next start, and where the store is then.
    for (const auto& [left, setting, location] : Table<KelString, KelString, KelString>{
             {target, "", store},       // while it was copied; the move is not wanted any more
             {target, target, target},  // while it was copied
             {store, target, target},   // while the old folders were removed
             {store, store, store}}) {  // the same, and it is to move back
        SCOPED_TRACE(left + " " + setting);
        filestore::WriteInformation(filestore::kStoreToRemoveField, left);
        WriteFile(left + part, "left");
        RestartWith(setting);
        for (const KelString& place : {store, target}) {
            EXPECT_EQ(FileExists(place + content), place == location);
            EXPECT_FALSE(FileExists(place + part));
        }
        EXPECT_EQ(OnlyFields(kDown, "FilePath"), location + content);
        EXPECT_EQ(filestore::ReadInformation(filestore::kStoreToRemoveField), std::nullopt);
    }
}

TEST_F(StorageLocation, CopyThatEndsEarlyIsRemoved) {
    const KelString store = FileStore::strStorageLocationToUse, target = Root() + "/target/";
    const KelString old = AddContent();
    const auto cannotMove = [&] {
        FileStore::strStorageLocationToUse = target;
        EXPECT_FALSE(FileStore::ChangeFileStoragePath());
        EXPECT_EQ(Content(old), "content");
        EXPECT_EQ(DirList(target), Texts{});
    };
    KelAgentSetStopping(true);
    cannotMove();
    KelAgentSetStopping(false);
    for (const char* refused : {"INSERT ON DatabaseInformation", "UPDATE ON Files"}) {
        const auto unwritable = Refuse(kDown, refused);
        cannotMove();
    }
    FileStore::strStorageLocationToUse = target;
    EXPECT_TRUE(FileStore::ChangeFileStoragePath());
    EXPECT_EQ(OnlyFields(kDown, "FilePath"), target + "downstream/t/l/c/content");
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

TEST_F(StorageLocation, PortChangeRewritesThisDeviceOnEveryLevelAndNoOther) {
    const auto own = [](const char* port) { return KelFormat("h1:%s/%s", port, kGuid); };
    const auto tree = [&own](const char* port) {
        const KelString child = "h2:80/G2/02/10.0.0.2/255.0.0.0";
        return Make({{own(port) + "/02/10.0.0.1/255.0.0.0", Make({{child, KelContainer()}})}}).SaveToXML();
    };
    for (const KelString& source : {own("80"), KelString("10.0.80.1:80/G1"), KelString("nothing")})
        AddFile(kDown, "n", "AVAILABLE", KelFormat("SourceDevice = '%S'", source));
    AddTarget(1, 1, own("80") + "/02");
    AddTarget(1, 2, "h2:80/G2/02");
    AddTarget(1, 3, "");
    Rows(kDown, KelFormat("UPDATE Targets SET DevicePath = '%Q' WHERE TargetId = 1", tree("80")));
    Rows(kDown, KelFormat("UPDATE Targets SET DevicePath = '%S/h2:80/G2' WHERE TargetId = 2", own("80")));
    const KelString none = Cell(kDown, "SELECT DevicePath FROM Targets WHERE TargetId = 3");
    const KelString marker =
        "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('HttpPortUpdate', '1')";
    // the port; whether a change was left over; what the rows name then
    for (const auto& [port, mark, after] : Table<int, bool, const char*>{{80, false, "80"},
                                                                         {-1, true, "80"},
                                                                         {80, false, "80"},
                                                                         {1610, false, "1610"},
                                                                         {1610, false, "1610"},
                                                                         {-1, false, "1610"},
                                                                         {0, false, "1610"},
                                                                         {99, false, "99"}}) {
        SCOPED_TRACE(port);
        const KelString before = Cell(kDown, "SELECT SourceDevice FROM Files WHERE FileId = 1");
        if (mark) Rows(kDown, marker);
        httpValues = port == 0 ? KelContainer() : Make({{"Port", port}});
        {
            const auto full = Refuse(kDown, "UPDATE ON Targets");
            FileStore::UpdateHttpPort();
            EXPECT_EQ(Cell(kDown, "SELECT SourceDevice FROM Files WHERE FileId = 1"), before);
        }
        FileStore::UpdateHttpPort();
        EXPECT_EQ(Files(kDown, "SourceDevice"), (Texts{own(after), "10.0.80.1:80/G1", "nothing"}));
        EXPECT_EQ(Targets("DeviceGUID, DevicePath"),
                  (Texts{own(after) + "/02|" + tree(after), "h2:80/G2/02|" + own(after) + "/h2:80/G2",
                         "|" + none}));
        EXPECT_EQ(Cell(kDown, "SELECT 1 FROM DatabaseInformation WHERE FieldName = 'HttpPortUpdate'"),
                  mark ? "1" : "");
    }
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

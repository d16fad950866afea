#include "filestore/file_store_fixture.h"
#include "kel/directory.h"
#include "kel/file.h"

namespace {

class StorageLocation : public FileStoreTest {
  protected:
    static KelString Recorded() {
        return Cell(Downstream(),
                    "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'FileStorageCurrentPath'");
    }
    void Restart() {
        CleanUp();
        Initialise();
    }
};

TEST_F(StorageLocation, EmptySettingKeepsTheDataFolder) {
    Initialise();
    EXPECT_EQ(FileStore::strStorageLocationToUse, Root() + "/data/FileStore/");
    EXPECT_EQ(Recorded(), "");
}

TEST_F(StorageLocation, SettingIsMadeAbsoluteWithForwardSlashes) {
    SetIni("Directories", "FileStorage", "\\srv\\store");
    EXPECT_EQ(FileStore::GetFileStorageDirectory(), "/srv/store/");
    SetIni("Directories", "FileStorage", "/srv/store/");
    EXPECT_EQ(FileStore::GetFileStorageDirectory(), "/srv/store/");
}

TEST_F(StorageLocation, NewLocationMovesFilesAndPathsBothWays) {
    Initialise();
    const KelString old = FileStore::StorePath(false, "Type", "Label", "c", "n");
    WriteFile(old, "content");
    WriteFile(FileStore::StorePath(true, "Type", "Label", "c", "up"), "upward");
    AddFile(false, "n", filestore::kStatusAvailable, [&](FileStoreEntry& e) { e.FilePath = old; });
    AddFile(false, "x", filestore::kStatusAvailable, [](FileStoreEntry& e) { e.FilePath = "/elsewhere/x"; });

    const KelString target = Root() + "/it's new/";
    SetIni("Directories", "FileStorage", target);
    Restart();
    EXPECT_EQ(Recorded(), target);
    EXPECT_EQ(Rows(Downstream(), "SELECT FilePath FROM Files ORDER BY FileId"),
              (KelVector<KelString>{target + "downstream/Type/Label/c/n", "/elsewhere/x"}));
    EXPECT_EQ(FileGetSize64(target + "downstream/Type/Label/c/n"), 7);
    EXPECT_EQ(FileGetSize64(target + "upstream/Type/Label/c/up"), 6);
    EXPECT_FALSE(FileExists(old));

    SetIni("Directories", "FileStorage", "");
    Restart();
    EXPECT_EQ(Recorded(), Root() + "/data/FileStore/");
    EXPECT_EQ(FileGetSize64(old), 7);
}

TEST_F(StorageLocation, FailedMoveLeavesTheDatabaseAlone) {
    Initialise();
    const KelString old = FileStore::StorePath(false, "Type", "Label", "c", "n");
    WriteFile(old, "content");
    AddFile(false, "n", filestore::kStatusAvailable, [&](FileStoreEntry& e) { e.FilePath = old; });
    WriteFile(Root() + "/blocked", "a file where a folder should go");
    FileStore::strStorageLocationToUse = Root() + "/blocked/";
    EXPECT_FALSE(FileStore::ChangeFileStoragePath());
    EXPECT_EQ(Recorded(), "");
    EXPECT_EQ(Cell(Downstream(), "SELECT FilePath FROM Files"), old);
    EXPECT_EQ(FileGetSize64(old), 7);
}

TEST_F(StorageLocation, PortChangeRewritesDevices) {
    Initialise();
    AddFile(false, "a", filestore::kStatusAvailable,
            [](FileStoreEntry& e) { e.SourceDevice = "10.0.80.1:80/G1"; });
    AddFile(false, "b", filestore::kStatusAvailable, [](FileStoreEntry& e) { e.SourceDevice = "nothing"; });
    KelContainer child;
    child.SetContainer("h2:80/G2/02-00-00-00-00-01/10.0.0.2/255.0.0.0", {});
    KelContainer tree;
    tree.SetContainer("h1:80/G1/02-00-00-00-00-00/10.0.0.1/255.0.0.0", child);
    Rows(Downstream(),
         KelFormat("INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath) VALUES (1, 1, "
                   "'h1:80/G1/02-00', '%Q'), (2, 1, '', '')",
                   tree.SaveToXML()));
    FileStore::UpdateHttpPort();
    EXPECT_EQ(Cell(Downstream(), "SELECT SourceDevice FROM Files"), "10.0.80.1:80/G1");

    Rows(Downstream(),
         "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('HttpPortUpdate', '1')");
    FileStore::UpdateHttpPort();
    EXPECT_EQ(Rows(Downstream(), "SELECT SourceDevice FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"10.0.80.1:1610/G1", "nothing"}));
    EXPECT_EQ(Rows(Downstream(), "SELECT DeviceGUID FROM Targets ORDER BY TargetId"),
              (KelVector<KelString>{"h1:1610/G1/02-00", ""}));
    KelContainer changed;
    ASSERT_TRUE(static_cast<bool>(changed.LoadFromXML(Cell(Downstream(), "SELECT DevicePath FROM Targets"))));
    EXPECT_TRUE(changed.GetContainer("h1:1610/G1/02-00-00-00-00-00/10.0.0.1/255.0.0.0")
                    .IsContainer("h2:1610/G2/02-00-00-00-00-01/10.0.0.2/255.0.0.0"));
    EXPECT_EQ(
        Rows(Downstream(), "SELECT * FROM DatabaseInformation WHERE FieldName = 'HttpPortUpdate'").size(),
        0U);
}

TEST_F(StorageLocation, CorruptedPackagesAreAskedForAgain) {
    Initialise();
    struct Case {
        const char* name;
        const char* type;
        int size;
        bool external;
        bool inStore;
        bool isMissing;
        bool staysOnDisk;
    };
    const Case cases[] = {{"sound", "OperationalRulePackage", 4, false, true, false, true},
                          {"cut", "OperationalRuleScript", 5, false, true, true, false},
                          {"external", "OperationalRulePackage", 5, true, false, true, true},
                          {"outside", "OperationalRulePackage", 5, false, false, true, true},
                          {"other", "Anything", 5, false, true, false, true}};
    for (const Case& tested : cases) {
        const KelString path =
            (tested.inStore ? FileStore::strStorageLocationToUse : Root() + "/out/") + tested.name;
        WriteFile(path, "1234");
        AddFile(false, tested.name, filestore::kStatusAvailable, [&](FileStoreEntry& e) {
            e.FileType = tested.type;
            e.FileSize = tested.size;
            e.FilePath = path;
            e.ExternalFile = tested.external;
        });
    }
    FileStore::UpdateScriptAndPackageStatus(1);
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files WHERE FileStatus LIKE '%MISSING_'"), "0");
    FileStore::UpdateScriptAndPackageStatus(0);
    for (const Case& tested : cases) {
        const KelString where = KelFormat(" FROM Files WHERE FileName = '%s'", tested.name);
        EXPECT_EQ(Cell(Downstream(), "SELECT FileStatus" + where) == filestore::kStatusMissing,
                  tested.isMissing)
            << tested.name;
        EXPECT_EQ(FileExists(Cell(Downstream(), "SELECT FilePath" + where)), tested.staysOnDisk)
            << tested.name;
    }
}

}  // namespace

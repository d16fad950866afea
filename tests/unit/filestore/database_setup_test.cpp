#include "filestore/file_store_fixture.h"

namespace {

constexpr const char* kMarker =
    "SELECT FieldValue FROM DatabaseInformation WHERE FieldName='UpstreamTableCreated'";
constexpr const char* kTables =
    "SELECT name FROM sqlite_master WHERE type IN ('table', 'view') AND name NOT LIKE 'sqlite%' ORDER BY "
    "name";

class DatabaseSetup : public FileStoreTest {
  protected:
    /// Puts the databases back to before upstream files moved to their own one.
    static void ForgetMigration() {
        Rows(Upstream(), "DELETE FROM DatabaseInformation WHERE FieldName='UpstreamTableCreated'");
    }
    void SetUpAgain() {
        FileStore::CleanupDatabases();
        ASSERT_TRUE(FileStore::SetupDatabases());
    }
};

TEST_F(DatabaseSetup, FreshDatabasesHaveTheirTablesAndTheMarker) {
    Initialise();
    EXPECT_EQ(Rows(Upstream(), kTables), (KelVector<KelString>{"DatabaseInformation", "Files"}));
    EXPECT_EQ(Rows(Downstream(), kTables), (KelVector<KelString>{"DatabaseInformation", "Files", "FilesView",
                                                                 "MulticastListenAddress", "Targets"}));
    EXPECT_EQ(Rows(Callback(), kTables), (KelVector<KelString>{"CallbackThread", "DatabaseInformation"}));
    EXPECT_EQ(Rows(Upstream(), kMarker), (KelVector<KelString>{"1"}));
}

TEST_F(DatabaseSetup, ViewJoinsFilesWithTheirTargets) {
    Initialise();
    const unsigned long fileId = AddFile(false, "name", filestore::kStatusAvailable);
    AddFile(false, "untargeted", filestore::kStatusAvailable);
    Rows(Downstream(), KelFormat("INSERT INTO Targets VALUES (7, %lu, 'h:1/G', '<x/>', 10, 20, 1)", fileId));
    EXPECT_EQ(Rows(Downstream(),
                   "SELECT FileId, FileName, TargetId, DeviceGUID, DevicePath, LastNotifyTime, "
                   "TargetCreateTime FROM FilesView"),
              (KelVector<KelString>{KelFormat("%lu|name|7|h:1/G|<x/>|20|10", fileId)}));
}

TEST_F(DatabaseSetup, MovesUpstreamRowsOnceInBatches) {
    Initialise();
    Rows(Downstream(),
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 25000) INSERT INTO Files "
         "(FileId, FileName, Upstream) SELECT i, 'name' || i, 1 FROM n");
    Rows(Downstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (30000, 'stays', 0)");
    ForgetMigration();
    SetUpAgain();
    EXPECT_EQ(Rows(Upstream(), "SELECT count(*), sum(FileId), count(DISTINCT FileName) FROM Files"),
              (KelVector<KelString>{"25000|312512500|25000"}));
    EXPECT_EQ(Rows(Downstream(), "SELECT FileName FROM Files"), (KelVector<KelString>{"stays"}));
    EXPECT_EQ(Rows(Upstream(), kMarker), (KelVector<KelString>{"1"}));
}

TEST_F(DatabaseSetup, MovedTextsAreCutAndQuoted) {
    Initialise();
    const KelString longText(3000, 'x');
    KelString accents;
    for (int i = 0; i < 3000; ++i)
        accents += "é";
    Rows(Downstream(),
         KelFormat("INSERT INTO Files (FileId, FileName, FileLabel, FileInfo, FileSize, Upstream) "
                   "VALUES (1, 'it''s', '%S', '%S', '', 1)",
                   longText, accents));
    ForgetMigration();
    SetUpAgain();
    EXPECT_EQ(Rows(Upstream(),
                   "SELECT FileName, FileSize, length(FileLabel), length(FileInfo), "
                   "substr(FileInfo, -1) FROM Files"),
              (KelVector<KelString>{"it's|0|1900|1900|é"}));
}

TEST_F(DatabaseSetup, MarkerWithAnotherValueMovesNothing) {
    Initialise();
    Rows(Upstream(), "UPDATE DatabaseInformation SET FieldValue='0' WHERE FieldName='UpstreamTableCreated'");
    Rows(Downstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'n', 1)");
    SetUpAgain();
    EXPECT_EQ(Cell(Upstream(), "SELECT count(*) FROM Files"), "0");
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files"), "1");
    EXPECT_EQ(Rows(Upstream(), kMarker), (KelVector<KelString>{"1"}));
}

TEST_F(DatabaseSetup, RowThatIsThereAlreadyDoesNotStopTheOthers) {
    Initialise();
    Rows(Upstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'moved before', 1)");
    Rows(Downstream(),
         "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'again', 1), (2, 'new', 1)");
    ForgetMigration();
    SetUpAgain();
    EXPECT_EQ(Rows(Upstream(), "SELECT FileName FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"moved before", "new"}));
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files"), "0");
}

}  // namespace

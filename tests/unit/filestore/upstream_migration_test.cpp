#include "filestore/db/upstream_migration.h"
#include "filestore/file_store_fixture.h"

namespace {

/// Databases from before upstream files moved to their own one, or in the middle of that.
class UpstreamMigration : public FileStoreTest {
  protected:
    UpstreamMigration() { Initialise(); }

    static void ForgetMigration() {
        Rows(Upstream(), "DELETE FROM DatabaseInformation WHERE FieldName='UpstreamTableCreated'");
    }
    void SetUpAgain() {
        FileStore::CleanupDatabases();
        ASSERT_TRUE(FileStore::SetupDatabases());
        EXPECT_EQ(Rows(Upstream(),
                       "SELECT FieldValue FROM DatabaseInformation WHERE FieldName='UpstreamTableCreated'"),
                  KelVector<KelString>{"1"});
    }
};

TEST_F(UpstreamMigration, MovesRowsOnceInBatches) {
    Rows(Downstream(),
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 25000) INSERT INTO Files "
         "(FileId, FileName, Upstream) SELECT i, 'name' || i, 1 FROM n");
    Rows(Downstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (30000, 'stays', 0)");
    ForgetMigration();
    SetUpAgain();
    EXPECT_EQ(Rows(Upstream(), "SELECT count(*), sum(FileId), count(DISTINCT FileName) FROM Files"),
              (KelVector<KelString>{"25000|312512500|25000"}));
    EXPECT_EQ(Rows(Downstream(), "SELECT FileName FROM Files"), (KelVector<KelString>{"stays"}));
}

TEST_F(UpstreamMigration, MovedTextsAreCutBetweenCharactersAndQuoted) {
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

TEST_F(UpstreamMigration, MarkerWithAnotherValueMovesNothing) {
    Rows(Upstream(), "UPDATE DatabaseInformation SET FieldValue='0' WHERE FieldName='UpstreamTableCreated'");
    Rows(Downstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'n', 1)");
    SetUpAgain();
    EXPECT_EQ(Cell(Upstream(), "SELECT count(*) FROM Files"), "0");
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files"), "1");
}

TEST_F(UpstreamMigration, RowThatIsThereAlreadyDoesNotStopTheOthers) {
    Rows(Upstream(), "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'moved before', 1)");
    Rows(Downstream(),
         "INSERT INTO Files (FileId, FileName, Upstream) VALUES (1, 'again', 1), (2, 'new', 1)");
    ForgetMigration();
    SetUpAgain();
    EXPECT_EQ(Rows(Upstream(), "SELECT FileName FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"moved before", "new"}));
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files"), "0");
}

TEST_F(UpstreamMigration, FullDiskLeavesTheRowsAndNoOpenTransaction) {
    Rows(Downstream(),
         KelFormat("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) INSERT "
                   "INTO Files (FileId, FileName, FileInfo, Upstream) SELECT i, 'n', '%S', 1 FROM n",
                   KelString(1900, 'x')));
    ForgetMigration();
    Rows(Upstream(), "PRAGMA max_page_count = " + Cell(Upstream(), "PRAGMA page_count"));
    EXPECT_TRUE(FileStoreMigrateUpstreamRows(Downstream(), Upstream()));
    EXPECT_EQ(Cell(Upstream(), "SELECT count(*) FROM Files"), "0");
    EXPECT_EQ(Cell(Downstream(), "SELECT count(*) FROM Files"), "100");
    Rows(Upstream(), "PRAGMA max_page_count = 1000000");  // there is space again
    AddFile(true, "new", filestore::kStatusToBeHandled);
}

}  // namespace

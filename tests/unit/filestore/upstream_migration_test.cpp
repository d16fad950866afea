#include "filestore/db/upstream_migration.h"
#include "filestore/file_store_fixture.h"

namespace {

/// Databases from before upstream files moved to their own one, or in the middle of that.
struct UpstreamMigration : StoreTest {
    static void Insert(Side side, const KelString& values) {
        Rows(side, "INSERT INTO Files (FileId, FileName, Upstream) VALUES " + values);
    }
    /// What the upstream database then says of an earlier move: nothing unless a value is given.
    static void SetUpAgain(const KelString& marker = "") {
        const KelString where = " WHERE FieldName = 'UpstreamTableCreated'";
        Rows(kUp, "UPDATE DatabaseInformation SET FieldValue = '" + marker + "'" + where);
        Rows(kUp, "DELETE FROM DatabaseInformation" + where + " AND FieldValue = ''");
        FileStore::CleanupDatabases();
        ASSERT_TRUE(FileStore::SetupDatabases());
        EXPECT_EQ(Cell(kUp, "SELECT FieldValue FROM DatabaseInformation" + where), "1");
    }
};

TEST_F(UpstreamMigration, MovesRowsOnceInBatches) {
    Rows(kDown,
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 25000) INSERT INTO "
         "Files (FileId, FileName, Upstream) SELECT i, 'name' || i, 1 FROM n");
    Insert(kDown, "(30000, 'stays', 0)");
    SetUpAgain();
    EXPECT_EQ(Cell(kUp, "SELECT count(*), sum(FileId), count(DISTINCT FileName) FROM Files"),
              "25000|312512500|25000");
    EXPECT_EQ(Names(kDown), Texts{"stays"});
}

TEST_F(UpstreamMigration, MovedTextsAreCutBetweenCharactersAndQuoted) {
    KelString accents;
    for (int i = 0; i < 3000; ++i)
        accents += "é";
    Rows(kDown, KelFormat("INSERT INTO Files (FileId, FileName, FileLabel, FileInfo, FileSize, Upstream) "
                          "VALUES (1, 'it''s', '%S', '%S', '', 1)",
                          KelString(3000, 'x'), accents));
    SetUpAgain();
    EXPECT_EQ(
        OnlyFields(kUp, "FileName, FileSize, length(FileLabel), length(FileInfo), substr(FileInfo, -1)"),
        "it's|0|1900|1900|é");
}

TEST_F(UpstreamMigration, MarkerWithAnotherValueMovesNothing) {
    Insert(kDown, "(1, 'n', 1)");
    SetUpAgain("0");
    EXPECT_EQ(Count(kUp) + Count(kDown), "01");
}

TEST_F(UpstreamMigration, RowsThatWereMovedBeforeAreNotMovedTwice) {
    Insert(kUp, "(1, 'moved before', 1), (2, 'came since', 1)");
    Insert(kDown, "(1, 'moved before', 1), (2, 'id is taken', 1), (7, 'new', 1)");
    SetUpAgain();
    EXPECT_EQ(Rows(kUp, "SELECT FileId, FileName FROM Files ORDER BY FileId"),
              (Texts{"1|moved before", "2|came since", "3|id is taken", "7|new"}));
    EXPECT_EQ(Count(kDown), "0");
}

TEST_F(UpstreamMigration, RowsStayUntilAllAreMovedAndRemoved) {
    Insert(kDown, "(1, 'taken', 1), (2, 'refused', 1)");
    Rows(kUp, "DELETE FROM DatabaseInformation WHERE FieldName = 'UpstreamTableCreated'");
    const auto migrate = [] {
        EXPECT_TRUE(FileStoreMigrateUpstreamRows(Database(kDown), Database(kUp), FileStore::debugFileStore));
        return Count(kUp) + Count(kDown);
    };
    for (const auto& [side, change, counts] :
         Table<Side, const char*, const char*>{{kUp, "INSERT ON Files WHEN NEW.FileName = 'refused'", "02"},
                                               {kDown, "DELETE ON Files", "22"}}) {
        const auto refusal = Refuse(side, change);
        EXPECT_EQ(migrate(), counts);
    }
    EXPECT_EQ(migrate(), "20");
}

TEST_F(UpstreamMigration, FullDiskLeavesTheRowsAndNoOpenTransaction) {
    Rows(kDown,
         KelFormat("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) INSERT "
                   "INTO Files (FileId, FileName, FileInfo, Upstream) SELECT i, 'n', '%S', 1 FROM n",
                   KelString(1900, 'x')));
    Rows(kUp, "DELETE FROM DatabaseInformation WHERE FieldName = 'UpstreamTableCreated'");
    Rows(kUp, "PRAGMA max_page_count = " + Cell(kUp, "PRAGMA page_count"));
    EXPECT_TRUE(FileStoreMigrateUpstreamRows(Database(kDown), Database(kUp), FileStore::debugFileStore));
    EXPECT_EQ(Count(kUp) + Count(kDown), "0100");
    Rows(kUp, "PRAGMA max_page_count = 1000000");  // there is space again
    AddFile(kUp, "new", "TOBEHANDLED");
}

}  // namespace

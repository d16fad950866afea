#include "filestore/db/upstream_migration.h"
#include "filestore/file_store_fixture.h"

namespace {

/// Databases from before upstream files moved to their own one, or in the middle of that.
struct UpstreamMigration : StoreTest {
    static void Insert(Side side, const KelString& values) {
        Rows(side, "INSERT INTO Files (FileId, FileName, Upstream) VALUES " + values);
    }
    /// What the upstream database then says of an earlier move: nothing unless a value is given.
    static void Mark(const KelString& marker) {
        const KelString where = " WHERE FieldName = 'UpstreamTableCreated'";
        Rows(kUp, "UPDATE DatabaseInformation SET FieldValue = '" + marker + "'" + where);
        Rows(kUp, "DELETE FROM DatabaseInformation" + where + " AND FieldValue = ''");
    }
    static void SetUpAgain(const KelString& marker = "") {
        Mark(marker);
        FileStore::CleanupDatabases();
        ASSERT_TRUE(FileStore::SetupDatabases());
        EXPECT_EQ(
            Cell(kUp, "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'UpstreamTableCreated'"),
            "1");
    }
    static KelString Migrate() {
        EXPECT_TRUE(FileStoreMigrateUpstreamRows(Database(kDown), Database(kUp), FileStore::debugFileStore));
        return Count(kUp) + "|" + Count(kDown);
    }
};

TEST_F(UpstreamMigration, MovesRowsOnceInBatches) {
    Rows(kDown,
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 25000) "
         "INSERT INTO Files (FileId, FileName, Upstream) SELECT i, 'name' || i, 1 FROM n");
    Insert(kDown, "(30000, 'stays', 0)");
    SetUpAgain();
    EXPECT_EQ(Cell(kUp, "SELECT count(*), sum(FileId), count(DISTINCT FileName) FROM Files"),
              "25000|312512500|25000");
    EXPECT_EQ(Names(kDown), Texts{"stays"});
    Insert(kDown, "(1, 'n', 1)");
    SetUpAgain("0");
    EXPECT_EQ(Names(kDown), (Texts{"n", "stays"})) << "a marker, whatever its value";
}

TEST_F(UpstreamMigration, MovedTextsAreCutBetweenCharactersAndQuoted) {
    KelString accents;
    for (int i = 0; i < 3000; ++i)
        accents += "é";
    Rows(kDown, "INSERT INTO Files (FileId, FileName, FileInfo, FileSize, Upstream) VALUES (1, 'it''s', '" +
                    accents + "', '', 1)");
    SetUpAgain();
    EXPECT_EQ(OnlyFields(kUp, "FileName, FileSize, length(FileInfo), substr(FileInfo, -1)"), "it's|0|1900|é");
}

TEST_F(UpstreamMigration, RowsThatWereMovedBeforeAreNotMovedTwice) {
    Insert(kUp, "(1, 'moved before', 1), (2, 'came since', 1)");
    Insert(kDown, "(1, 'moved before', 1), (2, 'id is taken', 1), (7, 'new', 1)");
    SetUpAgain();
    EXPECT_EQ(Files(kUp, "FileId, FileName"),
              (Texts{"1|moved before", "2|came since", "3|id is taken", "7|new"}));
    EXPECT_EQ(Count(kDown), "0");
}

TEST_F(UpstreamMigration, RowsStayUntilAllAreMovedAndRemoved) {
    Insert(kDown, "(1, 'taken', 1), (2, 'refused', 1)");
    Mark("");
    for (const auto& [side, change, counts] :
         Table<Side, const char*, const char*>{{kUp, "INSERT ON Files WHEN NEW.FileName = 'refused'", "0|2"},
                                               {kDown, "DELETE ON Files", "2|2"}}) {
        const auto refusal = Refuse(side, change);
        EXPECT_EQ(Migrate(), counts);
    }
    EXPECT_EQ(Migrate(), "2|0");
}

}  // namespace

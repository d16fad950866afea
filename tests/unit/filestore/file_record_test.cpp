#include "filestore/db/files_table.h"
#include "filestore/file_store_fixture.h"

namespace {

struct FileRecord : FileStoreTest {
    FileRecord() { Initialise(); }
};

TEST_F(FileRecord, EveryFieldSurvivesTheWayThroughARecord) {
    const char* const all = "SELECT * FROM Files";
    for (const int flag : {0, 1}) {
        DeleteRows();
        Rows(kDown,
             KelFormat(
                 "INSERT INTO Files VALUES (7, 'it''s 1 ü', 'it''s 2', 'it''s 3', 'it''s 4', 5000000000, "
                 "'it''s 5', 'it''s 6', 'it''s 7', %d, 5, %d, %d, %d, 77, 4999999999, 1700000001, "
                 "1700000002, 'it''s 8', 'it''s 9', 'it''s 10', %d, 'it''s 11', 1501, 2048, 2, "
                 "'it''s 12', 5000000003, %d)",
                 flag, 1 - flag, flag, 1 - flag, flag, flag));
        FileStoreEntry entry = OnlyRow(kDown);
        EXPECT_FALSE(entry.LoadFromDatabase(8, kDown)) << "and keeps its values";
        EXPECT_EQ(entry.CreateInDatabase(kUp), 7U);
        EXPECT_EQ(Rows(kUp, all), Rows(kDown, all));

        Rows(kUp, "DELETE FROM Files");
        Rows(kUp, "INSERT INTO Files (FileId) VALUES (7)");
        ASSERT_TRUE(entry.SaveToDatabase(kUp));
        EXPECT_EQ(Rows(kUp, all), Rows(kDown, all));
    }
}

TEST_F(FileRecord, NewRecordGetsIdentifierAndTime) {
    FileStoreEntry entry;
    EXPECT_EQ(entry.CreateInDatabase(kDown), 1U);
    EXPECT_EQ(OnlyFields(kDown, "FileId, Priority, CreateTime > 1700000000"), "1|100|1");
}

TEST_F(FileRecord, IsFoundByItsKeyOrItsWholeUrl) {
    for (const auto& [name, checksum] :
         Table<const char*, const char*>{{"a", "ff"}, {"a", "11"}, {"b", ""}, {"it''s", "22"}})
        AddFile(kDown, name, "AVAILABLE", KelFormat("FileName = '%s', FileChecksum = '%s'", name, checksum));
    for (const auto& [name, checksum, fileId, exact] :
         Table<const char*, const char*, std::uint64_t, std::uint64_t>{{"a", "", 2, 0},
                                                                       {"a", "ff", 1, 1},
                                                                       {"a", "33", 0, 0},
                                                                       {"b", "33", 3, 0},
                                                                       {"it's", "22", 4, 4}}) {
        SCOPED_TRACE(KelFormat("%s %s", name, checksum));
        EXPECT_EQ(filestore::FindFileInDatabase(kDown, {"t", "l", name, checksum}), fileId);
        EXPECT_EQ(filestore::FindExactFile(kDown, {"t", "l", name, checksum}), exact);
        EXPECT_EQ(filestore::FindFileInDatabase(kUp, {"t", "l", name, checksum}), 0U);
    }
    const std::uint64_t fileId = AddFile(kUp, "n", "RECEIVING", "FileURL = '/FileStore/upstream/it''s'");
    EXPECT_EQ(filestore::FindFileFromUrl("/FileStore/upstream/it's"), fileId);
    EXPECT_EQ(filestore::FindFileFromUrl("/FileStore/upstream/it"), 0U);
}

}  // namespace

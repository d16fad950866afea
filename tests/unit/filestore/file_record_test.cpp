#include "filestore/db/file_status.h"
#include "filestore/file_store_fixture.h"

namespace {

class FileRecord : public FileStoreTest {
  protected:
    FileRecord() { Initialise(); }
};

TEST_F(FileRecord, EveryFieldSurvivesTheWayThroughARecord) {
    const char* const all = "SELECT * FROM Files";
    Rows(Downstream(),
         "INSERT INTO Files (FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, "
         "FileURL, FileStatus, Upstream, KeepCopy, ExternalFile, Bypass, Acknowledged, Priority, "
         "TransferredBytes, CreateTime, LastStatusChangeTime, SourceDevice, FirstRelay, FileInfo, "
         "MulticastTransferToBeStarted, MulticastAddress, MulticastPort, MulticastBlockSize, "
         "MulticastRetryNumber, TransportMode, LastRequestTime) VALUES (7, 'it''s 1 ü', 'it''s 2', "
         "'it''s 3', 'it''s 4', 5000000000, 'it''s 5', 'it''s 6', 'it''s 7', 1, 5, 1, 1, 1, 77, 4999999999, "
         "1700000001, 1700000002, 'it''s 8', 'it''s 9', 'it''s 10', 1, 'it''s 11', 1501, 2048, 2, "
         "'it''s 12', 5000000003)");
    FileStoreEntry entry;
    ASSERT_TRUE(entry.LoadFromDatabase("FileName = 'it''s 3'", false));
    EXPECT_FALSE(entry.LoadFromDatabase("FileName = 'none'", false)) << "and keeps its values";
    EXPECT_EQ(entry.CreateInDatabase(true), 7U);
    EXPECT_EQ(Rows(Upstream(), all), Rows(Downstream(), all));

    Rows(Upstream(), "DELETE FROM Files");
    Rows(Upstream(), "INSERT INTO Files (FileId) VALUES (7)");
    ASSERT_TRUE(entry.SaveToDatabase(true));
    EXPECT_EQ(Rows(Upstream(), all), Rows(Downstream(), all));
}

TEST_F(FileRecord, NewRecordGetsIdentifierAndTime) {
    FileStoreEntry entry;
    EXPECT_EQ(entry.CreateInDatabase(false), 1U);
    EXPECT_EQ(Rows(Downstream(), "SELECT FileId, Priority, CreateTime > 1700000000 FROM Files"),
              KelVector<KelString>{"1|100|1"});
}

TEST_F(FileRecord, IsFoundByItsKey) {
    const auto add = [](const char* name, const KelString& checksum) {
        return AddFile(false, name, filestore::kStatusAvailable, "FileChecksum = '" + checksum + "'");
    };
    const auto find = [](const char* name, const char* checksum) {
        return FileStore::FindFileInDatabase(Downstream(), "Type", "Label", name, checksum);
    };
    const unsigned long large = add("a", "ff"), small = add("a", "11");
    const unsigned long open = add("b", ""), quoted = add("it's", "22");
    EXPECT_EQ(find("a", ""), small);
    EXPECT_EQ(find("a", "ff"), large);
    EXPECT_EQ(find("a", "33"), 0U);
    EXPECT_EQ(find("b", "33"), open);
    EXPECT_EQ(find("it's", "22"), quoted);
    EXPECT_EQ(FileStore::FindFileInDatabase(Upstream(), "Type", "Label", "a", ""), 0U);
}

TEST_F(FileRecord, UpstreamFileIsFoundByItsWholeUrl) {
    const unsigned long fileId =
        AddFile(true, "n", filestore::kStatusReceiving, "FileURL = '/FileStore/upstream/it''s'");
    EXPECT_EQ(FileStore::FindFileFromUrl("/FileStore/upstream/it's"), fileId);
    EXPECT_EQ(FileStore::FindFileFromUrl("/FileStore/upstream/it"), 0U);
}

}  // namespace

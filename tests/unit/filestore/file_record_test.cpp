#include <ctime>

#include "filestore/file_store_fixture.h"

namespace {

class FileRecord : public FileStoreTest {
  protected:
    FileRecord() { Initialise(); }

    static unsigned long Find(const char* name, const char* checksum) {
        return FileStore::FindFileInDatabase(Downstream(), "Type", "Label", name, checksum);
    }
};

TEST_F(FileRecord, NewRecordHasTheDefaults) {
    FileStoreEntry entry;
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(entry.CreateInDatabase(false), 1U);
    EXPECT_EQ(Rows(Downstream(),
                   "SELECT FileId, FileStatus, Priority, MulticastBlockSize, TransportMode FROM Files"),
              (KelVector<KelString>{"1|_AGTMOD_FILESTORESTATUS_MISSING_|100|1024|Unknown"}));
    EXPECT_GE(std::stol(Cell(Downstream(), "SELECT CreateTime FROM Files")), before);
    EXPECT_LE(entry.CreateTime, std::time(nullptr));
}

TEST_F(FileRecord, EveryFieldSurvivesARoundTrip) {
    FileStoreEntry entry;
    KelString* const texts[] = {&entry.FileType,     &entry.FileLabel,        &entry.FileName,
                                &entry.FileChecksum, &entry.FilePath,         &entry.FileURL,
                                &entry.FileInfo,     &entry.FileStatus,       &entry.SourceDevice,
                                &entry.FirstRelay,   &entry.MulticastAddress, &entry.TransportMode};
    unsigned int number = 1;
    for (KelString* text : texts)
        *text = KelFormat("it's %u ü", number++);
    entry.FileSize = 5'000'000'000;
    entry.TransferredBytes = 4'999'999'999;
    entry.CreateTime = 1'700'000'001;
    entry.LastStatusChangeTime = 1'700'000'002;
    entry.LastRequestTime = 1'700'000'003;
    entry.KeepCopy = 5;
    entry.Priority = 77;
    entry.MulticastPort = 1501;
    entry.MulticastBlockSize = 2048;
    entry.MulticastRetryNumber = 2;
    for (bool* flag : {&entry.Bypass, &entry.Upstream, &entry.ExternalFile, &entry.Acknowledged,
                       &entry.MulticastTransferToBeStarted})
        *flag = true;
    for (const bool upstream : {true, false}) {
        FileStoreEntry written = entry;
        const unsigned long fileId = written.CreateInDatabase(upstream);
        FileStoreEntry read;
        ASSERT_TRUE(read.LoadFromDatabase(fileId, upstream));
        number = 1;
        for (const KelString* text :
             {&read.FileType, &read.FileLabel, &read.FileName, &read.FileChecksum, &read.FilePath,
              &read.FileURL, &read.FileInfo, &read.FileStatus, &read.SourceDevice, &read.FirstRelay,
              &read.MulticastAddress, &read.TransportMode})
            EXPECT_EQ(*text, KelFormat("it's %u ü", number++));
        EXPECT_EQ(read.FileSize, 5'000'000'000);
        EXPECT_EQ(read.TransferredBytes, 4'999'999'999U);
        EXPECT_EQ(read.CreateTime, 1'700'000'001);
        EXPECT_EQ(read.LastStatusChangeTime, 1'700'000'002);
        EXPECT_EQ(read.LastRequestTime, 1'700'000'003);
        EXPECT_EQ(read.KeepCopy, 5U);
        EXPECT_EQ(read.Priority, 77U);
        EXPECT_EQ(read.MulticastPort, 1501U);
        EXPECT_EQ(read.MulticastBlockSize, 2048U);
        EXPECT_EQ(read.MulticastRetryNumber, 2U);
        EXPECT_TRUE(read.Bypass && read.Upstream && read.ExternalFile && read.Acknowledged &&
                    read.MulticastTransferToBeStarted);

        FileStoreEntry changed = read;
        changed.FileName = "other";
        changed.Bypass = false;
        changed.MulticastRetryNumber = 3;
        ASSERT_TRUE(changed.SaveToDatabase(upstream));
        ASSERT_TRUE(read.LoadFromDatabase("FileName = 'other'", upstream));
        EXPECT_EQ(read.FileId, fileId);
        EXPECT_FALSE(read.Bypass);
        EXPECT_EQ(read.MulticastRetryNumber, 3U);
        EXPECT_EQ(read.FileType, "it's 1 ü");
    }
}

TEST_F(FileRecord, LoadWithoutAMatchKeepsTheRecord) {
    FileStoreEntry entry;
    entry.FileName = "kept";
    EXPECT_FALSE(entry.LoadFromDatabase("FileName = 'none'", false));
    EXPECT_EQ(entry.FileName, "kept");
}

TEST_F(FileRecord, FindsByKey) {
    auto add = [](const char* name, const char* checksum) {
        return AddFile(false, name, filestore::kStatusAvailable,
                       [&](FileStoreEntry& entry) { entry.FileChecksum = checksum; });
    };
    const unsigned long large = add("a", "ff");
    const unsigned long small = add("a", "11");
    const unsigned long open = add("b", "");
    const unsigned long quoted = add("it's", "22");
    EXPECT_EQ(Find("a", ""), small);
    EXPECT_EQ(Find("a", "ff"), large);
    EXPECT_EQ(Find("a", "33"), 0U);
    EXPECT_EQ(Find("b", "33"), open);
    EXPECT_EQ(Find("it's", "22"), quoted);
    EXPECT_EQ(Find("none", ""), 0U);
    EXPECT_EQ(FileStore::FindFileInDatabase(Upstream(), "Type", "Label", "a", ""), 0U);
}

TEST_F(FileRecord, FindsUpstreamFilesByUrl) {
    const unsigned long fileId = AddFile(true, "n", filestore::kStatusReceiving, [](FileStoreEntry& entry) {
        entry.FileURL = "/FileStore/upstream/it's";
    });
    EXPECT_EQ(FileStore::FindFileFromUrl("/FileStore/upstream/it's"), fileId);
    EXPECT_EQ(FileStore::FindFileFromUrl("/FileStore/upstream/it"), 0U);
}

TEST_F(FileRecord, StatusChangeSetsTimeAndForUnicastTheMode) {
    const unsigned long first = AddFile(false, "a", filestore::kStatusMissing);
    const unsigned long second = AddFile(false, "b", filestore::kStatusMissing);
    FileStore::UpdateFileStatus(Downstream(), first, filestore::kStatusAvailable, 5, 0);
    FileStore::UpdateFileStatus(Downstream(), second, filestore::kStatusReceiving, 6, 1);
    EXPECT_EQ(Rows(Downstream(),
                   "SELECT FileStatus, LastStatusChangeTime, TransportMode FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"_AGTMOD_FILESTORESTATUS_AVAILABLE_|5|Unknown",
                                    "_AGTMOD_FILESTORESTATUS_RECEIVING_|6|Unicast"}));
}

}  // namespace

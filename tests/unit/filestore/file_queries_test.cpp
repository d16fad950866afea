#include "filestore/db/files_table.h"
#include "filestore/file_store_fixture.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/up/patch_inventory.h"
#include "kel/text.h"

namespace {

using FileQueries = StoreTest;

TEST_F(FileQueries, EveryFieldSurvivesTheWayThroughARecordAndAnotherDatabase) {
    const KelString all = "SELECT * FROM Files";
    for (const int flag : {0, 1}) {
        DeleteRows();
        KelString numbered =
            "7, 'it''s 1 ü', 'it''s 2', 'it''s 3', 'it''s 4', 5000000000, 'it''s 5', 'it''s 6', ";
        Rows(
            kDown,
            KelFormat("INSERT INTO Files VALUES (%S'it''s 7', %d, 5, %d, %d, %d, 77, 4999999999, 1700000001, "
                      "1700000002, 'it''s 8', 'it''s 9', 'it''s 10', %d, 'it''s 11', 1501, 2048, 2, "
                      "'it''s 12', 5000000003, %d)",
                      numbered, flag, 1 - flag, flag, 1 - flag, flag, flag));
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

TEST_F(FileQueries, FileIsFoundByItsKeyOrItsWholeUrl) {
    EXPECT_EQ(FileStoreEntry({"t", "l", "a", "ff"}).CreateInDatabase(kDown), 1U);
    EXPECT_EQ(OnlyFields(kDown, "FileId, Priority, CreateTime"), "1|100|now");
    AddFile(kDown, "a", "AVAILABLE", "FileChecksum = '11'");
    AddFile(kDown, "b", "AVAILABLE", "FileChecksum = ''");
    AddFile(kDown, "it's", "AVAILABLE", "FileURL = '/FileStore/upstream/it''s'");
    for (const auto& [name, checksum, fileId, exact] :
         Table<const char*, const char*, std::uint64_t, std::uint64_t>{
             {"a", "", 2, 0}, {"a", "ff", 1, 1}, {"a", "33", 0, 0}, {"b", "33", 3, 0}, {"it's", "c", 4, 4}}) {
        SCOPED_TRACE(KelFormat("%s %s", name, checksum));
        EXPECT_EQ(filestore::FindFileInDatabase(kDown, {"t", "l", name, checksum}), fileId);
        EXPECT_EQ(filestore::FindExactFile(kDown, {"t", "l", name, checksum}), exact);
        EXPECT_EQ(filestore::FindFileInDatabase(kUp, {"t", "l", name, checksum}), 0U);
    }
    AddFile(kUp, "n", "RECEIVING", "FileURL = '/FileStore/upstream/it''s'");
    EXPECT_EQ(filestore::FindFileFromUrl("/FileStore/upstream/it's"), 1U);
    EXPECT_EQ(filestore::FindFileFromUrl("/FileStore/upstream/it"), 0U);
}

TEST_F(FileQueries, GivesTheDetailsOfOneFile) {
    AddFile(kDown, "c", "AVAILABLE", "FileSize = 2");
    const KelContainer file = Ask("FileStoreGetFileInfo", Make({{"FileId", 1}})).GetContainer("Values");
    EXPECT_EQ(Read(file,
                   "FileId FileType FileLabel FileName FileChecksum FileSize Upstream KeepCopy Bypass "
                   "Acknowledged Priority SourceDevice FirstRelay TransferredBytes TransferredData"),
              "1|t|l|c|c|2|false|0|false|false|100|||0|100 %");
    EXPECT_TRUE(file.Has("CreateTime"));
    EXPECT_EQ(file.GetString("FileStatus"), filestore::kStatusAvailable);
    EXPECT_EQ(file.GetType("FileSize"), KelContainer::Type::Int64);
    EXPECT_FALSE(Ask("FileStoreGetFileInfo", Make({{"FileName", "c"}})).Has("Values"));
}

TEST_F(FileQueries, ProgressIsGivenInPerCent) {
    const KelString path = MakeFile("partial", KelString(30, 'x'));
    for (const auto& [status, file, size, progress] :
         Table<const char*, KelString, std::int64_t, const char*>{
             {filestore::kStatusUnicastAvailable, path, 60, "100 %"},
             {filestore::kStatusDownloading, path, 60, "50 %"},
             {filestore::kStatusReceiving, path, 20, "100 %"},
             {filestore::kStatusDownloading, path, 0, "N/A"},
             {filestore::kStatusMissing, path, 60, "N/A"},
             {filestore::kStatusDownloading, path, INT64_MAX, "0 %"},
             {filestore::kStatusDownloading, "absent", 60, "N/A"}})
        EXPECT_EQ(FileStore::getFileTransferPercent(status, file, size), progress) << status << size;
}

TEST_F(FileQueries, RunningTransfersAreListedAsLongAsTheirRowsExist) {
    AddFile(kDown, "a", "DOWNLOADING", "FileSize = 60, SourceDevice = '10.1.2.3:80/G'");
    WriteFile(FileStore::StorePath(kDown, {"t", "l", "a", "c"}), KelString(30, 'x'));
    AddFile(kUp, "b", "UPLOADING", "FileSize = 7");
    const KelString names = "FileName Upstream FileSize Peer TransferredBytes";
    {
        const auto sent = std::make_shared<std::atomic<std::uint64_t>>(5);
        const filestore::TransferMark down(kDown, 1, 10), up(kUp, 1, 0, sent), gone(kDown, 9, 0);
        EXPECT_EQ(ReadValues(Ask("FileStoreGetTransfers"), names),
                  (Texts{"a|false|60|10.1.2.3:80|30", "b|true|7|127.0.1.1:1|5"}));
    }
    EXPECT_FALSE(Ask("FileStoreGetTransfers").Has("Values"));
}

TEST_F(FileQueries, GivesTypeAndInformationByLabelAndChecksum) {
    for (const auto& [checksum, stored, given] : Table<KelString, KelString, KelContainer>{
             {"c1", Info().SaveToXML(), Info()}, {"c2", "<Container>", KelContainer()}}) {
        AddFile(kDown, "n", "AVAILABLE", KelFormat("FileChecksum = '%S', FileInfo = '%Q'", checksum, stored));
        const KelContainer answer =
            Ask("FileStoreGetFileInformation", Make({{"FileLabel", "l"}, {"FileChecksum", checksum}}));
        EXPECT_EQ(answer.GetString("FileType"), "t");
        EXPECT_EQ(answer.GetContainer("FileInfo"), given);
    }
}

TEST_F(FileQueries, ReportsMulticastGroupsAndHostsAndResetsOnlyFilesThatWait) {
    EXPECT_FALSE(Ask("FileStoreGetMulticastStatus").Has("Values"));
    for (const char* device : {"10.1.2.3:80', 'Waiting", "10.1.2.4:80', 'Waiting", "10.1.2.5:80', 'Failed"})
        Rows(kDown, KelFormat("INSERT INTO MulticastListenAddress (MulticastAddress, DeviceUrl, Status) "
                              "VALUES ('224.2.0.1', 'http://u:p@%s')",
                              device));
    const KelContainer groups = Ask("FileStoreGetMulticastStatus"),
                       hosts = Ask("FileStoreGetMulticastDetails");
    EXPECT_EQ(ReadValues(groups, "Status CountStatus"), (Texts{"Failed|1", "Waiting|2"}));
    EXPECT_EQ(ReadValues(hosts, "DeviceUrl"), (Texts{"10.1.2.5", "10.1.2.3", "10.1.2.4"}));

    for (const char* status : {"MULTICASTLISTENING", "AVAILABLE"})
        AddFile(kDown, "n", status, "FileURL = '/it''s', FileSize = 9, Acknowledged = 1");
    Ask("FileStoreResetMulticastStatus", Make({{"FileURL", "/it's"}}));
    EXPECT_EQ(Files(kDown, "FileStatus, FileSize, Acknowledged"),
              (Texts{"TOBEREQUESTED|0|0", "AVAILABLE|9|1"}));
}

TEST_F(FileQueries, PackageListGoesUpstreamOnceInAWhile) {
    KelContainer sent;
    Fake("FileStoreReceiveFile ()", [&](KelContainer& container) {
        EXPECT_TRUE(static_cast<bool>(sent.LoadFromFile(container.GetString("MovePath"))));
        return 1U;
    });
    const auto synchronise = [](bool isRelay) {
        FileStore::fRelayEnabled = isRelay;
        FileStore::ExecutePackageSynchroAtStartup();
        return !GetIni("PackageSynchronization", "LastPackageSynchro").empty();
    };
    EXPECT_FALSE(synchronise(true)) << "there are no packages yet";
    for (const char* name : {"p1", "p2"})
        AddFile(kDown, name, "AVAILABLE", "FileType = 'OperationalRulePackage'");
    EXPECT_FALSE(synchronise(false));
    EXPECT_TRUE(synchronise(true));
    EXPECT_TRUE(synchronise(true));  // too soon
    EXPECT_EQ(
        Read(OnlyCallOf("FileStoreReceiveFile"), "FileType FileLabel FileName FileChecksum Bypass Upstream"),
        "PackageSyncInfo|PackageSyncInfo||(none)|false|true");
    EXPECT_EQ(sent.Count("FileName"), 2U);
    EXPECT_EQ(sent.GetString("FileName", "", 1), "p2");
    EXPECT_TRUE(DirList(FileStore::strModuleDataPath + "/Temp").empty());  // refused: nothing is left behind
}

// ---- lists

struct FileList : StoreTest {
    FileList() {
        // By pairs equal in type, label and name: their order is that of checksum and number.
        for (const char* name : {"b", "a", "b", "c", "a"})
            AddFile(kDown, name, "AVAILABLE", "FileChecksum = 'x'");
        AddFile(kDown, "d", "TOBEREQUESTED");
        AddFile(kDown, "e", "OBSOLETE");
    }

    static KelString Ids(const KelContainer& list) {
        KelString ids;
        for (std::uint32_t i = 0; list.Has("Values") && i < list.Count("Values"); ++i)
            ids += list.GetContainer("Values", i).GetString("FileId");
        return ids;
    }
};

TEST_F(FileList, PartsFitTogetherAndKnowTheWhole) {
    for (const auto& [values, ids] : Table<KelContainer, const char*>{
             {KelContainer(), "251346"},
             {Make({{"Limit", 2}}), "25"},
             {Make({{"Offset", 2}, {"Limit", 2}}), "13"},
             {Make({{"Offset", 4}, {"Limit", 9}}), "46"},
             {Make({{"Offset", 6}}), ""},
             {Make({{"Limit", 0}}), ""},
             {Make({{"SortAttr", "TransferredData"}}), "251346"},
             {Make({{"Limit", "5000000000"}}), "251346"},
             {Make({{"SortAttr", "FileStatus"}, {"SortOrder", "DESC"}, {"Limit", 3}}), "612"}}) {
        SCOPED_TRACE(values.SaveToXML());
        const KelContainer list = Ask("FileStoreListFiles", values);
        EXPECT_EQ(Ids(list), ids);
        EXPECT_EQ(list.GetInt64("TotalCount"), 6);
    }
    for (const auto& [after, ids] : Table<int, const char*>{{5, "13"}, {3, "46"}, {6, ""}}) {
        const KelContainer list = Ask("FileStoreListFiles", Make({{"After", after}, {"Limit", 2}}));
        EXPECT_EQ(Ids(list), ids) << after;
        EXPECT_FALSE(list.Has("TotalCount"));
    }
    Ask("FileStoreListFiles", Make({{"After", 99}}), kKelErrorMissingContent);
    Ask("FileStoreListFiles", Make({{"After", 5}, {"SortAttr", "FileName"}}), kKelErrorBadInput);
    for (const char* name : {"Offset", "Limit", "After"})
        Ask("FileStoreListFiles", Make({{name, -1}}), kKelErrorBadInput);
    for (const auto& [name, value] :
         {std::pair("SortAttr", "FileName; DROP TABLE Files"), {"SortOrder", "ASC, FileId"}})
        Ask("FileStoreListFiles", Make({{name, value}}), kKelErrorBadInput);
}

TEST_F(FileList, CountsByStatusNeedNoList) {
    AddFile(kUp, "up", "TOBEUPLOADED");
    const KelContainer down = Ask("FileStoreListFiles", Make({{"CountsOnly", true}}));
    EXPECT_FALSE(down.Has("Values"));
    EXPECT_EQ(down.GetContainer("Counts").GetNameCount(), 2U);
    EXPECT_EQ(down.GetContainer("Counts").GetInt32(filestore::kStatusAvailable), 5);
    EXPECT_EQ(down.GetContainer("Counts").GetInt32(filestore::kStatusToBeRequested), 1);
    const KelContainer up = Ask("FileStoreListFiles", Make({{"CountsOnly", true}, {"ListUpstream", true}}));
    EXPECT_EQ(up.GetInt64("TotalCount"), 1);
    EXPECT_EQ(up.GetContainer("Counts").GetInt32(filestore::kStatusToBeUploaded), 1);
}

TEST_F(FileQueries, CountsTheTargetsThatFilesWaitFor) {
    const std::int64_t now = std::time(nullptr);
    AddFile(kDown, "done", "AVAILABLE");
    const std::uint64_t young = AddFile(kDown, "young", "MISSING");
    const std::uint64_t old = AddFile(kDown, "old", "AVAILABLE", "FileSize = 5, Priority = 7");
    AddTarget(young, 1, "");
    std::uint64_t target = 2;
    for (const std::int64_t notified : {std::int64_t{0}, std::int64_t{8}, now - 1, now + 900, now + 901})
        AddTarget(old, target++, "d", notified);
    Rows(kDown, KelFormat("UPDATE Targets SET TargetCreateTime = 9 WHERE FileId = %lu", young));
    const KelString names = "FileName FileStatus FileSize Priority Waiting Notified Failed OldestTime";
    const KelString first = KelString("old|") + filestore::kStatusAvailable + "|5|7|2|2|1|1";
    const KelString second = KelString("young|") + filestore::kStatusMissing + "|0|100|1|0|0|9";
    const KelString action = "FileStoreGetNotifiableFiles";
    EXPECT_EQ(ReadValues(Ask(action), names), (Texts{first, second}));
    EXPECT_EQ(ReadValues(Ask(action, Make({{"Offset", 1}, {"Limit", 1}})), names), (Texts{second}));
    Ask(action, Make({{"Limit", -1}}), kKelErrorBadInput);
}

TEST_F(FileQueries, KnowsWhetherTheNewestPatchInventoryHasReachedTheParent) {
    const auto add = [](const KelString& name, const KelString& status, const KelString& set) {
        AddFile(kUp, name, status, "FileType = 'PatchInventory'" + set);
    };
    const auto answer = [] {
        return Read(Ask("FileStoreIsPatchInventoryUploaded"), "IsKnown IsUploaded FileName");
    };
    add("of a child", "AVAILABLE", ", FirstRelay = 'r', CreateTime = 99");
    EXPECT_EQ(answer(), "false|false|(none)");
    add("first", "AVAILABLE", ", CreateTime = 5");
    EXPECT_EQ(answer(), "true|true|first");
    add("second", "UPLOADING", ", CreateTime = 6");
    EXPECT_EQ(answer(), "true|false|second");
    add("packed", "PACKEDFILE", ", CreateTime = 7");
    EXPECT_EQ(answer(), "true|true|packed");
    AddFile(kUp, "archive", "UPLOADING", "FileType = 'FileStorePackedFiles'");
    EXPECT_EQ(answer(), "true|false|packed");
    DeleteRows();
    for (const KelString& relay : {KelString("r"), KelString()}) {
        FileStoreEntry file({"PatchInventory", "l", "n", "c"});
        file.FirstRelay = relay;
        filestore::NoteUploadedInventory(file);
        EXPECT_EQ(answer(), relay.empty() ? "true|true|(none)" : "false|false|(none)") << "without a row";
    }
    EXPECT_GT(Ask("FileStoreIsPatchInventoryUploaded").GetInt64("UploadTime"), 0);
}

}  // namespace

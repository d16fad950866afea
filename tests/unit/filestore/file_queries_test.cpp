#include "filestore/file_store_fixture.h"
#include "kel/text.h"

namespace {

struct FileQueries : StoreTest {
    static void AddThree() {
        AddFile(kDown, "b", "AVAILABLE", "FileSize = 1");
        AddFile(kDown, "a", "MISSING", "FileSize = 3");
        AddFile(kDown, "old", "OBSOLETE");
        AddFile(kDown, "c", "AVAILABLE", "FileSize = 2");
        AddFile(kUp, "up", "TOBEUPLOADED");
    }
};

TEST_F(FileQueries, ListsInTheOrderAskedForWithoutObsoleteFiles) {
    AddThree();
    for (const auto& [values, names] : Table<KelContainer, Texts>{
             {KelContainer(), {"a", "b", "c"}},
             {Make({{"SortAttr", "TransferredData"}}), {"a", "b", "c"}},
             {Make({{"SortAttr", "FileSize"}}), {"b", "c", "a"}},
             {Make({{"SortAttr", "filesize"}, {"SortOrder", "DESC"}}), {"a", "c", "b"}},
             {Make({{"ListUpstream", true}}), {"up"}},
             {Make({{"SortAttr", "FileName; DROP TABLE Files"}}), {}},
             {Make({{"SortAttr", "Nothing"}}), {}},
             {Make({{"SortOrder", "ASC, FileId"}}), {}}})
        EXPECT_EQ(ReadValues(Ask("FileStoreListFiles", values, names.empty() ? kKelErrorBadInput : kKelOk),
                             "FileName"),
                  names)
            << values.SaveToXML();
}

TEST_F(FileQueries, GivesTheDetailsOfOneFile) {
    AddThree();
    const KelContainer file = Ask("FileStoreGetFileInfo", Make({{"FileId", 4}})).GetContainer("Values");
    EXPECT_EQ(Read(file,
                   "FileId FileType FileLabel FileName FileChecksum FileSize Upstream KeepCopy Bypass "
                   "Acknowledged Priority SourceDevice FirstRelay TransferredBytes TransferredData"),
              "4|t|l|c|c|2|false|0|false|false|100|||0|100 %");
    EXPECT_TRUE(file.Has("CreateTime"));
    EXPECT_EQ(file.GetString("FileStatus"), filestore::kStatusAvailable);
    EXPECT_EQ(file.GetType("FileSize"), KelContainer::Type::Int64);

    EXPECT_FALSE(Ask("FileStoreGetFileInfo", Make({{"FileName", "c"}})).Has("Values"));
}

TEST_F(FileQueries, ProgressIsGivenInPerCent) {
    const KelString path = MakeFile("partial", KelString(30, 'x'));
    for (const auto& [status, file, size, progress] :
         Table<const char*, KelString, std::int64_t, const char*>{
             {filestore::kStatusAvailable, path, 0, "100 %"},
             {filestore::kStatusUnicastAvailable, path, 60, "100 %"},
             {filestore::kStatusDownloading, path, 60, "50 %"},
             {filestore::kStatusReceiving, path, 20, "100 %"},
             {filestore::kStatusDownloading, path, 0, "N/A"},
             {filestore::kStatusMissing, path, 60, "N/A"},
             {filestore::kStatusDownloading, path, INT64_MAX, "0 %"},
             {filestore::kStatusDownloading, "absent", 60, "N/A"}})
        EXPECT_EQ(FileStore::getFileTransferPercent(status, file, size), progress) << status << size;
}

TEST_F(FileQueries, GivesTypeAndInformationByLabelAndChecksum) {
    const KelContainer info = Make({{"Owner", "it's <me>"}});
    for (const auto& [checksum, stored, given] : Table<KelString, KelString, KelContainer>{
             {"c1", info.SaveToXML(), info}, {"c2", "<Container>", KelContainer()}}) {
        AddFile(kDown, "n", "AVAILABLE", KelFormat("FileChecksum = '%S', FileInfo = '%Q'", checksum, stored));
        const KelContainer answer =
            Ask("FileStoreGetFileInformation", Make({{"FileLabel", "l"}, {"FileChecksum", checksum}}));
        EXPECT_EQ(answer.GetString("FileType"), "t");
        EXPECT_EQ(answer.GetContainer("FileInfo"), given);
    }
}

TEST_F(FileQueries, ReportsMulticastGroupsAndHosts) {
    EXPECT_FALSE(Ask("FileStoreGetMulticastStatus").Has("Values"));
    for (const char* device : {"10.1.2.3:80', 'Waiting", "10.1.2.4:80', 'Waiting", "10.1.2.5:80', 'Failed"})
        Rows(kDown, KelFormat("INSERT INTO MulticastListenAddress (MulticastAddress, DeviceUrl, Status) "
                              "VALUES ('224.2.0.1', 'http://u:p@%s')",
                              device));
    EXPECT_EQ(ReadValues(Ask("FileStoreGetMulticastStatus"), "Status CountStatus"),
              (Texts{"Failed|1", "Waiting|2"}));
    EXPECT_EQ(ReadValues(Ask("FileStoreGetMulticastDetails"), "DeviceUrl"),
              (Texts{"10.1.2.5", "10.1.2.3", "10.1.2.4"}));
}

TEST_F(FileQueries, ResetsOnlyFilesThatWaitForMulticast) {
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
    const KelContainer call = OnlyCallOf("FileStoreReceiveFile");
    EXPECT_EQ(FileKey::Read(call), (FileKey{"PackageSyncInfo", "PackageSyncInfo", "", ""}));
    EXPECT_EQ(Read(call, "Bypass Upstream"), "false|true");
    EXPECT_EQ(sent.Count("FileName"), 2U);
    EXPECT_EQ(sent.GetString("FileName", "", 1), "p2");
    EXPECT_TRUE(DirList(FileStore::strModuleDataPath + "/Temp").empty());  // refused: nothing is left behind
}

}  // namespace

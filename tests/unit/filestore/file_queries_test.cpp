#include "filestore/file_store_fixture.h"
#include "kel/directory.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

class FileQueries : public FileStoreTest {
  protected:
    FileQueries() { Initialise(); }

    static void AddThree() {
        AddFile(false, "b", filestore::kStatusAvailable, "FileSize = 1");
        AddFile(false, "a", filestore::kStatusMissing, "FileSize = 3");
        AddFile(false, "old", filestore::kStatusObsolete);
        AddFile(false, "c", filestore::kStatusAvailable, "FileSize = 2");
        AddFile(true, "up", filestore::kStatusToBeUploaded);
    }
};

TEST_F(FileQueries, ListsInTheOrderAskedForWithoutObsoleteFiles) {
    AddThree();
    constexpr const char* kRefused = "-";
    for (const auto& [values, names] : {std::pair{KelContainer(), "abc"},
                                        {Make({{"SortAttr", "TransferredData"}}), "abc"},
                                        {Make({{"SortAttr", "FileSize"}}), "bca"},
                                        {Make({{"SortAttr", "filesize"}, {"SortOrder", "DESC"}}), "acb"},
                                        {Make({{"ListUpstream", true}}), "up"},
                                        {Make({{"SortAttr", "FileName; DROP TABLE Files"}}), kRefused},
                                        {Make({{"SortAttr", "Nothing"}}), kRefused},
                                        {Make({{"SortOrder", "ASC, FileId"}}), kRefused}}) {
        SCOPED_TRACE(values.SaveToXML());
        KelContainer arguments = values;
        KelString listed = Call("FileStoreListFiles", arguments) == kKelErrorBadInput ? kRefused : "";
        for (std::uint32_t i = 0; arguments.Has("Values") && i < arguments.Count("Values"); ++i)
            listed += arguments.GetContainer("Values", i).GetString("FileName");
        EXPECT_EQ(listed, names);
    }
}

TEST_F(FileQueries, GivesTheDetailsOfOneFile) {
    AddThree();
    const KelContainer file = Ask("FileStoreGetFileInfo", Make({{"FileId", 4}})).GetContainer("Values");
    const KelString names =
        "FileId FileType FileLabel FileChecksum FileStatus Upstream KeepCopy Bypass Acknowledged Priority "
        "CreateTime SourceDevice FirstRelay TransferredBytes";
    for (const KelString& name : SplitText(names, ' '))
        EXPECT_TRUE(file.Has(name)) << name;
    EXPECT_EQ(file.GetString("FileName"), "c");
    EXPECT_EQ(file.GetInt64("FileSize"), 2);
    EXPECT_EQ(file.GetType("FileSize"), KelContainer::Type::Int64);
    EXPECT_EQ(file.GetString("TransferredData"), "100 %");

    EXPECT_FALSE(Ask("FileStoreGetFileInfo", Make({{"FileName", "c"}})).Has("Values"));
}

TEST_F(FileQueries, GivesTypeAndInformationByLabelAndChecksum) {
    const KelContainer info = Make({{"Owner", "it's <me>"}});
    const auto given = [](const KelString& checksum, const KelString& stored) {
        AddFile(false, "n", filestore::kStatusAvailable,
                KelFormat("FileChecksum = '%S', FileInfo = '%Q'", checksum, stored));
        return Ask("FileStoreGetFileInformation", Make({{"FileLabel", "Label"}, {"FileChecksum", checksum}}));
    };
    EXPECT_EQ(given("c1", info.SaveToXML()).GetString("FileType"), "Type");
    EXPECT_EQ(given("c2", info.SaveToXML()).GetContainer("FileInfo"), info);
    EXPECT_TRUE(given("c3", "<Container>").GetContainer("FileInfo").IsEmpty());
}

TEST_F(FileQueries, ReportsMulticastGroupsAndHosts) {
    EXPECT_FALSE(Ask("FileStoreGetMulticastStatus").Has("Values"));
    for (const char* device : {"10.1.2.3:80', 'Waiting", "10.1.2.4:80', 'Waiting", "10.1.2.5:80', 'Failed"})
        Rows(Downstream(),
             KelFormat("INSERT INTO MulticastListenAddress (MulticastAddress, DeviceUrl, Status) "
                       "VALUES ('224.2.0.1', 'http://u:p@%s')",
                       device));
    const KelContainer status = Ask("FileStoreGetMulticastStatus");
    ASSERT_EQ(status.Count("Values"), 2U);
    for (std::uint32_t i = 0; i < 2; ++i) {
        const KelContainer& group = status.GetContainer("Values", i);
        EXPECT_EQ(group.GetInt32("CountStatus"), group.GetString("Status") == "Failed" ? 1 : 2);
    }
    const KelContainer details = Ask("FileStoreGetMulticastDetails");
    ASSERT_EQ(details.Count("Values"), 3U);
    EXPECT_EQ(details.GetContainer("Values", 0).GetString("DeviceUrl"), "10.1.2.5");
    EXPECT_EQ(details.GetContainer("Values", 1).GetString("DeviceUrl"), "10.1.2.3");
}

TEST_F(FileQueries, ResetsOnlyFilesThatWaitForMulticast) {
    for (const char* status : {filestore::kStatusMulticastListening, filestore::kStatusAvailable})
        AddFile(false, "n", status, "FileURL = '/it''s', FileSize = 9, Acknowledged = 1");
    Ask("FileStoreResetMulticastStatus", Make({{"FileURL", "/it's"}}));
    EXPECT_EQ(Rows(Downstream(), "SELECT FileStatus, FileSize, Acknowledged FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"_AGTMOD_FILESTORESTATUS_TOBEREQUESTED_|0|0",
                                    "_AGTMOD_FILESTORESTATUS_AVAILABLE_|9|1"}));
}

TEST_F(FileQueries, PackageListGoesUpstreamOnceInAWhile) {
    KelContainer sent;
    Fake("FileStoreReceiveFile ()", [&](KelContainer& container) {
        EXPECT_TRUE(static_cast<bool>(sent.LoadFromFile(container.GetString("MovePath"))));
        return 1U;
    });
    FileStore::fRelayEnabled = true;
    FileStore::ExecutePackageSynchroAtStartup();  // there are no packages yet
    EXPECT_EQ(GetIni("PackageSynchronization", "LastPackageSynchro"), "");
    for (const char* name : {"p1", "p2"})
        AddFile(false, name, filestore::kStatusAvailable, "FileType = 'OperationalRulePackage'");
    for (const bool isRelay : {false, true, true}) {  // the third time is too soon
        FileStore::fRelayEnabled = isRelay;
        FileStore::ExecutePackageSynchroAtStartup();
    }
    const KelVector<KelContainer> calls = CallsOf("FileStoreReceiveFile");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].GetString("FileType"), "PackageSyncInfo");
    EXPECT_TRUE(calls[0].GetBool("Upstream"));
    EXPECT_EQ(sent.Count("FileName"), 2U);
    EXPECT_EQ(sent.GetString("FileName", "", 1), "p2");
    EXPECT_NE(GetIni("PackageSynchronization", "LastPackageSynchro"), "");
    EXPECT_TRUE(DirList(FileStore::strModuleDataPath + "/Temp").empty());  // refused: nothing is left behind
}

}  // namespace

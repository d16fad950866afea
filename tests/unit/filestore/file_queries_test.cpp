#include "filestore/file_store_fixture.h"
#include "kel/directory.h"
#include "kelcore/error_codes.h"

namespace {

class FileQueries : public FileStoreTest {
  protected:
    FileQueries() { Initialise(); }

    /// The names listed, joined with blanks.
    static KelString List(const std::function<void(KelContainer&)>& fill = {}) {
        KelContainer arguments;
        if (fill) fill(arguments);
        EXPECT_EQ(Call("FileStoreListFiles", arguments), kKelOk);
        KelString names;
        for (std::uint32_t i = 0; arguments.Has("Values") && i < arguments.Count("Values"); ++i)
            names += (i > 0 ? " " : "") + arguments.GetContainer("Values", i).GetString("FileName");
        return names;
    }
    static void AddThree() {
        AddFile(false, "b", filestore::kStatusAvailable, [](FileStoreEntry& e) { e.FileSize = 1; });
        AddFile(false, "a", filestore::kStatusMissing, [](FileStoreEntry& e) { e.FileSize = 3; });
        AddFile(false, "old", filestore::kStatusObsolete);
        AddFile(false, "c", filestore::kStatusAvailable, [](FileStoreEntry& e) { e.FileSize = 2; });
        AddFile(true, "up", filestore::kStatusToBeUploaded);
    }
};

TEST_F(FileQueries, ListsInTheOrderAskedForWithoutObsoleteFiles) {
    AddThree();
    EXPECT_EQ(List(), "a b c");
    EXPECT_EQ(List([](KelContainer& v) { v.SetString("SortAttr", "TransferredData"); }), "a b c");
    EXPECT_EQ(List([](KelContainer& v) { v.SetString("SortAttr", "FileSize"); }), "b c a");
    EXPECT_EQ(List([](KelContainer& v) {
                  v.SetString("SortAttr", "filesize");
                  v.SetString("SortOrder", "DESC");
              }),
              "a c b");
    EXPECT_EQ(List([](KelContainer& v) { v.SetBool("ListUpstream", true); }), "up");
}

TEST_F(FileQueries, RefusesWhatIsNoColumnOrOrder) {
    AddThree();
    for (const auto& [attribute, order] :
         {std::pair{"FileName; DROP TABLE Files", "ASC"}, std::pair{"Nothing", "ASC"},
          std::pair{"FileName", "ASC, FileId"}}) {
        KelContainer arguments;
        arguments.SetString("SortAttr", attribute);
        arguments.SetString("SortOrder", order);
        EXPECT_EQ(Call("FileStoreListFiles", arguments), kKelErrorBadInput) << attribute << " " << order;
        EXPECT_FALSE(arguments.Has("Values"));
    }
}

TEST_F(FileQueries, GivesTheDetailsOfOneFile) {
    AddThree();
    KelContainer arguments;
    arguments.SetInt32("FileId", 4);
    EXPECT_EQ(Call("FileStoreGetFileInfo", arguments), kKelOk);
    const KelContainer& file = arguments.GetContainer("Values");
    const KelVector<KelString> expected = {
        "FileId",     "FileType",     "FileLabel",  "FileName",         "FileChecksum",   "FileSize",
        "FileStatus", "Upstream",     "KeepCopy",   "Bypass",           "Acknowledged",   "Priority",
        "CreateTime", "SourceDevice", "FirstRelay", "TransferredBytes", "TransferredData"};
    ASSERT_EQ(file.GetNameCount(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(file.GetName(i), expected[i]);
    EXPECT_EQ(file.GetString("FileName"), "c");
    EXPECT_EQ(file.GetInt64("FileSize"), 2);
    EXPECT_EQ(file.GetType("FileSize"), KelContainer::Type::Int64);

    KelContainer byKey;
    byKey.SetString("FileName", "c");
    EXPECT_EQ(Call("FileStoreGetFileInfo", byKey), kKelOk);
    EXPECT_FALSE(byKey.Has("Values"));
}

TEST_F(FileQueries, GivesTypeAndInformationByLabelAndChecksum) {
    KelContainer info;
    info.SetString("Owner", "it's <me>");
    AddFile(false, "n", filestore::kStatusAvailable, [&](FileStoreEntry& e) {
        e.FileInfo = info.SaveToXML();
        e.FileChecksum = "c1";
    });
    AddFile(false, "broken", filestore::kStatusAvailable, [](FileStoreEntry& e) {
        e.FileInfo = "<Container>";
        e.FileChecksum = "c2";
    });
    KelContainer arguments;
    arguments.SetString("FileLabel", "Label");
    arguments.SetString("FileChecksum", "c1");
    EXPECT_EQ(Call("FileStoreGetFileInformation", arguments), kKelOk);
    EXPECT_EQ(arguments.GetString("FileType"), "Type");
    EXPECT_EQ(arguments.GetContainer("FileInfo"), info);
    arguments.SetString("FileChecksum", "c2");
    EXPECT_EQ(Call("FileStoreGetFileInformation", arguments), kKelOk);
    EXPECT_TRUE(arguments.GetContainer("FileInfo").IsEmpty());
}

TEST_F(FileQueries, ReportsMulticastGroupsAndHosts) {
    KelContainer empty;
    EXPECT_EQ(Call("FileStoreGetMulticastStatus", empty), kKelOk);
    EXPECT_FALSE(empty.Has("Values"));
    Rows(Downstream(),
         "INSERT INTO MulticastListenAddress (MulticastAddress, DeviceUrl, Status) VALUES "
         "('224.2.0.1', 'http://u:p@10.1.2.3:8080', 'MulticastWaiting'), ('224.2.0.1', "
         "'http://u:p@10.1.2.4:8080', 'MulticastWaiting'), ('224.2.0.1', 'http://u:p@10.1.2.5:8080', "
         "'MulticastFailed')");
    KelContainer status;
    EXPECT_EQ(Call("FileStoreGetMulticastStatus", status), kKelOk);
    ASSERT_EQ(status.Count("Values"), 2U);
    for (std::uint32_t i = 0; i < 2; ++i) {
        const KelContainer& group = status.GetContainer("Values", i);
        EXPECT_EQ(group.GetInt32("CountStatus"), group.GetString("Status") == "MulticastFailed" ? 1 : 2);
    }
    KelContainer details;
    EXPECT_EQ(Call("FileStoreGetMulticastDetails", details), kKelOk);
    ASSERT_EQ(details.Count("Values"), 3U);
    EXPECT_EQ(details.GetContainer("Values", 0).GetString("DeviceUrl"), "10.1.2.5");
    EXPECT_EQ(details.GetContainer("Values", 1).GetString("DeviceUrl"), "10.1.2.3");
}

TEST_F(FileQueries, ResetsOnlyFilesThatWaitForMulticast) {
    for (const char* status : {filestore::kStatusMulticastListening, filestore::kStatusAvailable})
        AddFile(false, "n", status, [](FileStoreEntry& e) {
            e.FileURL = "/it's";
            e.FileSize = 9;
            e.Acknowledged = true;
        });
    KelContainer arguments;
    arguments.SetString("FileURL", "/it's");
    EXPECT_EQ(Call("FileStoreResetMulticastStatus", arguments), kKelOk);
    EXPECT_EQ(Rows(Downstream(), "SELECT FileStatus, FileSize, Acknowledged FROM Files ORDER BY FileId"),
              (KelVector<KelString>{"_AGTMOD_FILESTORESTATUS_TOBEREQUESTED_|0|0",
                                    "_AGTMOD_FILESTORESTATUS_AVAILABLE_|9|1"}));
}

TEST_F(FileQueries, PackageListGoesUpstream) {
    KelContainer sent;
    Fake("FileStoreReceiveFile ()", [&](KelContainer& container) {
        EXPECT_TRUE(static_cast<bool>(sent.LoadFromFile(container.GetString("MovePath"))));
        return 1U;
    });
    KelContainer arguments;
    EXPECT_EQ(Call("PackageSendSyncInfo", arguments), kKelOk);
    EXPECT_TRUE(CallsOf("FileStoreReceiveFile").empty());
    EXPECT_EQ(GetIni("PackageSynchronization", "LastPackageSynchro"), "");
    EXPECT_TRUE(FileStore::IsGapOkForPackageSynchronization());

    for (const char* name : {"p1", "p2"})
        AddFile(false, name, filestore::kStatusAvailable,
                [](FileStoreEntry& e) { e.FileType = "OperationalRulePackage"; });
    FileStore::fRelayEnabled = true;
    FileStore::ExecutePackageSynchroAtStartup();
    FileStore::ExecutePackageSynchroAtStartup();  // too soon
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

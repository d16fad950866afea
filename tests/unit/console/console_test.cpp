#include "console_fixture.h"

namespace {

TEST_F(ConsoleTest, PublishesTheFolderItCopiesTo) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_EQ(alias_.GetString("AliasName"), "QuarnelDatabase");
    EXPECT_EQ(alias_.GetString("AliasPath"), root_ / "data/Console");
}

TEST_F(ConsoleTest, ListsTheTreeAsTheIniFileHasItNow) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    KelContainer devices = Call("ConsoleListDevices");
    ASSERT_EQ(devices.Count("Values"), 3U);
    EXPECT_EQ(devices.GetContainer("Values", 0).GetString("PathName"), kMasterPath);
    EXPECT_EQ(devices.GetContainer("Values", 0).GetString("Role"), "master");
    EXPECT_EQ(devices.GetContainer("Values", 0).GetString("Name"), "boss");
    EXPECT_EQ(devices.GetContainer("Values", 2).GetString("Name"), "desk");
    EXPECT_EQ(devices.GetContainer("Values", 2).GetString("Parent"), kNorth);
    EXPECT_EQ(devices.GetContainer("Values", 2).GetString("Address"), "127.0.3.3:1610");
    EXPECT_EQ(devices.GetContainer("Values", 2).GetInt64("LastSeen", -1), 0);

    WriteDevices(std::string(kNorth) + "=nonsense\n");
    EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 1U);
    EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 1U);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "nonsense"), 1);
}

TEST_F(ConsoleTest, PublishCopiesTheFileAndOffersItToTheStore) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    KelContainer request = From(Request("DESK"), "127.0.3.1");
    request.SetInt32("Priority", 7);
    request.SetBool("WakeOnLan", true);
    KelContainer info;
    info.SetString("Note", "x");
    request.SetContainer("FileInfo", info);
    ASSERT_EQ(Call("ConsolePublish", request), 0U) << request.GetString("Message");
    const KelString checksum = TextMd5("content");
    EXPECT_EQ(request.GetString("FileChecksum"), checksum);
    EXPECT_EQ(request.GetInt64("FileSize"), 7);
    EXPECT_EQ(request.GetInt32("Targets"), 1);
    EXPECT_FALSE(request.GetString("PublicationId").empty());

    ASSERT_EQ(offers_.size(), 1U);
    const KelContainer& offer = offers_[0];
    EXPECT_EQ(offer.GetString("FileName"), "setup.bin");
    EXPECT_EQ(offer.GetString("FileChecksum"), checksum);
    EXPECT_EQ(offer.GetString("FileURL"), "/QuarnelDatabase/Packages/tools/" + checksum + "/setup.bin");
    EXPECT_EQ(TempFolder::Read(offer.GetString("FilePath")), "content");
    EXPECT_EQ(offer.GetInt32("Priority"), 7);
    EXPECT_TRUE(offer.GetBool("WakeOnLan"));
    EXPECT_EQ(offer.GetContainer("FileInfo"), info);
    EXPECT_FALSE(offer.Has("HttpProtocolRequestInfo"));
    KelContainer client;
    client.SetContainer(kClientPath, KelContainer());
    KelContainer north;
    north.SetContainer(kNorthPath, client);
    KelContainer tree;
    tree.SetContainer(kMasterPath, north);
    EXPECT_EQ(offer.GetContainer("DevicePath"), tree);
}

TEST_F(ConsoleTest, TheSameAndADamagedCopyMayBePublishedAgain) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    for (int i = 0; i < 3; ++i) {
        KelContainer request = Request("all");
        ASSERT_EQ(Call("ConsolePublish", request), 0U);
        EXPECT_EQ(request.GetInt32("Targets"), 2);
        EXPECT_EQ(TempFolder::Read(offers_[0].GetString("FilePath")), "content");
        TempFolder::Write(offers_[0].GetString("FilePath"), "damaged");
    }
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Console/Incoming"));
}

TEST_F(ConsoleTest, UnusableRequestsAreRefusedAndPublishNothing) {
    struct Case {
        const char* name;
        const char* value;
        std::string text;
    };
    WriteDevices(BothDevices() +
                 "ABCD0000-0000-0000-0000-000000000004=127.0.3.4:1/ABCD0000-0000-0000-0000-000000000004/0/"
                 "127.0.3.4/255.0.0.0 " +
                 kMaster + " client desk\n");
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    for (const Case& bad :
         {Case{"missing file", "FilePath", root_ / "absent"}, Case{"folder", "FilePath", root_ / "data"},
          Case{"relative path", "FilePath", "setup.bin"}, Case{"empty path", "FilePath", ""},
          Case{"type leaves the folder", "FileType", ".."}, Case{"type with apostrophe", "FileType", "a'b"},
          Case{"empty type", "FileType", ""}, Case{"label is a path", "FileLabel", "a/b"},
          Case{"empty label", "FileLabel", ""}, Case{"name is a path", "FileName", "../x"},
          Case{"unknown device", "Device", "nobody"}, Case{"ambiguous device", "Device", "desk"},
          Case{"empty device", "Device", ""}}) {
        KelContainer request = Request(kNorth);
        request.SetString(bad.value, bad.text);
        EXPECT_EQ(Call("ConsolePublish", request), kKelErrorBadInput) << bad.name;
        EXPECT_FALSE(request.GetString("Message").empty()) << bad.name;
        if (bad.value == std::string("Device")) {
            EXPECT_NE(request.GetString("Message").find("\"" + bad.text + "\""), KelString::npos) << bad.name;
        }
    }
    KelContainer remote = From(Request(kNorth), "127.0.3.9");
    EXPECT_EQ(Call("ConsolePublish", remote), kKelErrorBadInput);
    KelContainer unknownCaller = From(Request(kNorth), "");
    EXPECT_EQ(Call("ConsolePublish", unknownCaller), kKelErrorBadInput);
    EXPECT_TRUE(offers_.empty());
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Console/Packages"));
}

TEST_F(ConsoleTest, TheStoresRefusalIsPassedOn) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    storeResult_ = 13;
    KelContainer request = Request(kNorth);
    EXPECT_EQ(Call("ConsolePublish", request), 13U);
    EXPECT_FALSE(request.Has("PublicationId"));
    EXPECT_FALSE(Call("ConsoleListPublications").Has("Values"));
}

TEST_F(ConsoleTest, ManyThreadsMayPublishTheSameFile) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this] {
            KelContainer request = Request("north");
            EXPECT_EQ(Call("ConsolePublish", request), 0U) << request.GetString("Message");
        });
    }
    threads.clear();
    ASSERT_EQ(offers_.size(), 8U);
    EXPECT_EQ(TempFolder::Read(offers_[7].GetString("FilePath")), "content");
}

TEST_F(ConsoleTest, ScriptsAreNotAvailable) {
    RunningModule<Console> module;
    KelContainer none;
    EXPECT_EQ(Call("QuarnelDbRunScript", none), kKelErrorNotAvailable);
    EXPECT_EQ(Call("QuarnelDbObjectListTypes").GetString("Types"), "Device");
}

}  // namespace

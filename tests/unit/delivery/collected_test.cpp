#include "delivery_fixture.h"

namespace {

constexpr unsigned int kNotReady = 44001;
constexpr unsigned int kStaysHere = 44003;

class CollectTest : public DeliveryTest {
  protected:
    void BeMaster() {
        FakeAction("QuarnelDbObjectListTypes ()", [](KelContainer*) { return 0U; });
    }
    unsigned int ComeUp(KelContainer file, const std::string& source) {
        file.SetString("SourceDevice", source);
        KelContainer results;
        return CallbackDbTrigger("FileStoreCallbackCopyUpstream", file, results);
    }
    std::string Collected(const std::string& below) { return root_ / ("data/Delivery/Collected/" + below); }
};

TEST_F(CollectTest, OnlyTheMasterCollects) {
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        EXPECT_EQ(CallbackDbGetActionCount("FileStoreCallbackCopyUpstream"), 0U);
    }
    BeMaster();
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        EXPECT_EQ(CallbackDbGetActionCount("FileStoreCallbackCopyUpstream"), 1U);
    }
    EXPECT_EQ(CallbackDbGetActionCount("FileStoreCallbackCopyUpstream"), 0U);
}

TEST_F(CollectTest, FilesGoToTheFolderOfTheirDevice) {
    BeMaster();
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    struct Case {
        std::string source;
        std::string folder;
    };
    for (const Case& test : {Case{std::string("north:1610/") + kGuid, kGuid}, Case{kGuid, kGuid},
                             Case{"", "unknown"}, Case{"north:1610/../../..", "unknown"},
                             Case{"..", "unknown"}, Case{std::string("a/b/") + kGuid, "unknown"}}) {
        EXPECT_EQ(ComeUp(Stored("Inventory", "disks", "of " + test.source), test.source), kStaysHere);
        EXPECT_EQ(TempFolder::Read(Collected(test.folder + "/Inventory/label/disks")), "of " + test.source);
    }
    const auto time =
        std::filesystem::last_write_time(Collected(kGuid + std::string("/Inventory/label/disks")));
    KelContainer same = Stored("Inventory", "disks", std::string("of ") + kGuid);
    std::filesystem::remove(same.GetString("FilePath"));
    EXPECT_EQ(ComeUp(same, kGuid), kStaysHere) << "nothing needs to be read from the store";
    EXPECT_EQ(std::filesystem::last_write_time(Collected(kGuid + std::string("/Inventory/label/disks"))),
              time);

    const KelContainer list = Call("DeliveryListCollected");
    ASSERT_EQ(list.Count("Values"), 2U);
    const KelContainer& first = list.GetContainer("Values", 0);
    EXPECT_EQ(first.GetString("Device"), kGuid);
    EXPECT_EQ(first.GetString("FileType"), "Inventory");
    EXPECT_EQ(first.GetString("FileLabel"), "label");
    EXPECT_EQ(first.GetString("FileName"), "disks");
    EXPECT_EQ(first.GetInt64("Size"), 39);
    EXPECT_EQ(first.GetString("Path"), Collected(kGuid + std::string("/Inventory/label/disks")));
    EXPECT_EQ(list.GetContainer("Values", 1).GetString("Device"), "unknown");
}

TEST_F(CollectTest, WhatIsNotToBeCollectedLeavesNothing) {
    BeMaster();
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    for (const char* type :
         {"IdentityIdentity", "DeliveryReceipt", "FileStorePackedFiles", "PackageSyncInfo"})
        EXPECT_EQ(ComeUp(Stored(type, "f", "content"), kGuid), kStaysHere) << type;
    KelContainer bad = Stored("T", "../f", "content");
    EXPECT_EQ(Call("DeliveryCollect", bad), kKelErrorBadInput);
    KelContainer remote = Stored("T", "f", "content");
    KelContainer info;
    info.SetString("HttpProtocolRequestAddress", "127.0.3.9");
    remote.SetContainer("HttpProtocolRequestInfo", info);
    EXPECT_EQ(Call("DeliveryCollect", remote), kKelErrorBadInput);
    KelContainer absent = Stored("T", "f", "content");
    std::filesystem::remove(absent.GetString("FilePath"));
    EXPECT_EQ(ComeUp(absent, kGuid), kNotReady);
    EXPECT_FALSE(Call("DeliveryListCollected").Has("Values"));
}

}  // namespace

#include "delivery_fixture.h"

namespace {

constexpr unsigned int kStaysHere = 44003;

class CollectTest : public DeliveryTest {
  protected:
    static void BeMaster() { FakeResults("QuarnelDbObjectListTypes ()", {}); }
    static unsigned int ComeUp(const KelContainer& file, const std::string& source) {
        return Trigger("FileStoreCallbackCopyUpstream", With(file, {"SourceDevice=" + source}));
    }
    std::string CollectedDisks(const std::string& device) {
        return root_ / ("data/Delivery/Collected/" + device + "/Inventory/label/disks");
    }
};

TEST_F(CollectTest, OnlyTheMasterCollects) {
    {
        RunningModule<Delivery> module;
        EXPECT_EQ(CallbackDbGetActionCount("FileStoreCallbackCopyUpstream"), 0U);
    }
    BeMaster();
    { RunningModule<Delivery> module; }
    EXPECT_EQ(CallbackDbGetActionCount("FileStoreCallbackCopyUpstream"), 0U) << "gone with the module";
}

TEST_F(CollectTest, FilesGoToTheFolderOfTheirDevice) {
    BeMaster();
    const std::string incoming = root_ / "data/Delivery/Incoming";
    TempFolder::Write(incoming + "/.kel-stale", "left by a kill");
    RunningModule<Delivery> module;
    for (const std::string& source :
         {"north:1610/" + kGuid, kGuid, std::string(), std::string("north:1610/../../.."), std::string(".."),
          "a/b/" + kGuid}) {
        EXPECT_EQ(ComeUp(Stored("Inventory", "disks", "of " + source), source), kStaysHere);
        const bool isKnown = source == kGuid || source == "north:1610/" + kGuid;
        EXPECT_EQ(TempFolder::Read(CollectedDisks(isKnown ? kGuid : "unknown")), "of " + source);
    }
    const auto time = std::filesystem::last_write_time(CollectedDisks(kGuid));
    const KelContainer same = Stored("Inventory", "disks", "of " + kGuid);
    std::filesystem::remove(same.GetString("FilePath"));
    EXPECT_EQ(ComeUp(same, kGuid), kStaysHere) << "nothing needs to be read from the store";
    EXPECT_EQ(std::filesystem::last_write_time(CollectedDisks(kGuid)), time);

    const KelContainer list = Call("DeliveryListCollected");
    ASSERT_EQ(list.Count("Values"), 2U);
    ExpectValues(list.GetContainer("Values", 0),
                 {"Device=" + kGuid, "FileType=Inventory", "FileLabel=label", "FileName=disks", "Size=39",
                  "Path=" + CollectedDisks(kGuid)});
    ExpectValues(list.GetContainer("Values", 1), {"Device=unknown"});
    EXPECT_TRUE(std::filesystem::is_empty(incoming));
}

TEST_F(CollectTest, WhatIsNotToBeCollectedLeavesNothing) {
    BeMaster();
    RunningModule<Delivery> module;
    for (const char* type :
         {"IdentityIdentity", "DeliveryReceipt", "FileStorePackedFiles", "PackageSyncInfo"})
        EXPECT_EQ(ComeUp(Stored(type, "f", "content"), kGuid), kStaysHere) << type;
    const KelContainer file = Stored("T", "f", "content");
    EXPECT_EQ(Call("DeliveryCollect", With(file, {"FileName=../f"})), kKelErrorBadInput);
    EXPECT_EQ(Call("DeliveryCollect", From(file, "127.0.3.9")), kKelErrorBadInput);
    std::filesystem::remove(file.GetString("FilePath"));
    EXPECT_EQ(ComeUp(file, kGuid), kNotReady);
    EXPECT_FALSE(Call("DeliveryListCollected").Has("Values"));
}

}  // namespace

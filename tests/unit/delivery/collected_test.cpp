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
    ExpectValues(list.GetContainer("Values", 0), {"Device=" + kGuid, "FileType=Inventory", "FileLabel=label",
                                                  "FileName=disks", "Path=" + CollectedDisks(kGuid)});
    EXPECT_TRUE(std::filesystem::is_empty(incoming));
}

TEST_F(CollectTest, FilesThatShareASyncAreInPlaceAfterIt) {
    BeMaster();
    RunningModule<Delivery> module;
    const auto comeLater = [this](const std::string& content) {
        return ComeUp(With(Stored("Inventory", "disks", content), {"SyncFollows=true"}), kGuid);
    };
    for (const char* last : {"a", "b"}) {
        for (const char* content : {"a", "b", last})
            EXPECT_EQ(comeLater(content), kStaysHere);
        EXPECT_EQ(Trigger("FileStoreCallbackSyncUpstream", {}), kKelOk);
        EXPECT_EQ(TempFolder::Read(CollectedDisks(kGuid)), last) << "the order holds";
    }
    EXPECT_EQ(comeLater("c"), kStaysHere);
    const std::filesystem::path folder = std::filesystem::path(CollectedDisks(kGuid)).parent_path();
    std::filesystem::remove_all(folder);
    TempFolder::Write(folder, "a file in place of the folder");
    EXPECT_EQ(Trigger("FileStoreCallbackSyncUpstream", {}), kNotReady);
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Delivery/Incoming"));
    std::filesystem::remove(folder);
    EXPECT_EQ(Trigger("FileStoreCallbackSyncUpstream", {}), kKelOk);
    EXPECT_FALSE(Call("DeliveryListCollected").Has("Values")) << "it is handed over again";
}

TEST_F(CollectTest, WhatIsNotToBeCollectedLeavesNothing) {
    BeMaster();
    RunningModule<Delivery> module;
    for (const char* type :
         {"IdentityIdentity", "DeliveryReceipt", "FileStorePackedFiles", "PackageSyncInfo"})
        EXPECT_EQ(ComeUp(Stored(type, "f", "content"), kGuid), kStaysHere) << type;
    const KelContainer file = Stored("T", "f", "content");
    EXPECT_EQ(Call("DeliveryCollect", With(file, {"FileName=../f"})), kKelErrorBadInput);
    EXPECT_EQ(Call("DeliveryCollect", From(file, "127.0.3.9")), kKelErrorNotAvailable);
    std::filesystem::remove(file.GetString("FilePath"));
    EXPECT_EQ(ComeUp(file, kGuid), kNotReady);
    EXPECT_FALSE(Call("DeliveryListCollected").Has("Values"));
}

/// The store remembers what the module has not taken, and forgets it when the module says so.
class UntakenTest : public DeliveryTest {
  protected:
    void SetUp() override {
        DeliveryTest::SetUp();
        FakeAction("FileStoreGetUntakenFiles ()", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            for (std::uint32_t i = 0; container->Has("Taken") && i < container->Count("Taken"); ++i)
                untaken_.erase(container->GetContainer("Taken", i).GetString("FileName"));
            std::uint32_t index = 0;
            for (const auto& [name, file] : untaken_)
                if (!container->Has("Taken")) container->SetContainer("Values", file, index++);
            return 0U;
        });
    }
    /// Announces a file of this name, which the store remembers.
    unsigned int HandOver(const std::string& name) {
        const KelContainer file = Stored("T", name, name);
        {
            const std::lock_guard lock(mutex_);
            untaken_[name] = file;
        }
        return Announce(file);
    }
    std::size_t UntakenCount() {
        const std::lock_guard lock(mutex_);
        return untaken_.size();
    }

    /// The first job cannot be written: a folder is in its place.
    void BlockFirstJob() { TempFolder::Write(Pending() + "/00000000000000000001.xml/x", ""); }

  private:
    std::mutex mutex_;
    std::map<std::string, KelContainer> untaken_;
};

TEST_F(UntakenTest, FilesWhoseJobCouldNotBeWrittenDownAreDeliveredAfterTheRestart) {
    const std::string inTheWay = root_ / "data/Delivery/Inbox/T";
    for (const bool isCopied : {true, false}) {
        SCOPED_TRACE(isCopied);
        const std::string name = isCopied ? "copied" : "waiting";
        {
            RunningModule<Delivery> module;  // its threads do not run, as if it had been killed
            BlockFirstJob();
            if (!isCopied) {
                std::filesystem::remove_all(inTheWay);
                TempFolder::Write(inTheWay, "a file");
            }
            EXPECT_EQ(HandOver(name), isCopied ? 0U : kNotReady);
        }
        EXPECT_EQ(UntakenCount(), 1U);
        std::filesystem::remove_all(Pending());
        if (!isCopied) std::filesystem::remove(inTheWay);
        ActiveModule<Delivery> module;
        EXPECT_TRUE(Eventually([&] { return Statuses()[TextMd5(name)] == "delivered"; }));
        EXPECT_EQ(TempFolder::Read(InboxPath("T", name)), name);
        EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
        EXPECT_EQ(HandOver(name), 0U) << "it is in place already";
        EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
        EXPECT_EQ(log_->Count(KelDebugLevel::Print, "Delivered T/label/" + name), 1);
    }
}

TEST_F(UntakenTest, StoreKeepsAFileUntilItIsCopied) {
    const std::string inTheWay = root_ / "data/Delivery/Inbox/T";
    TempFolder::Write(inTheWay, "a file");
    for (int starts = 1; starts <= 2; ++starts) {
        ActiveModule<Delivery> module;
        if (starts == 1) {
            EXPECT_EQ(HandOver("f"), kNotReady);
        }
        EXPECT_TRUE(
            Eventually([&] { return log_->Count(KelDebugLevel::Error, "cannot be created") == starts; }));
        EXPECT_EQ(UntakenCount(), 1U);
    }
    std::filesystem::remove(inTheWay);
    ActiveModule<Delivery> module;
    EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "f");
}

TEST_F(UntakenTest, StoreForgetsAFileWhoseJobWasNeverWrittenDownWithItsReceipt) {
    ActiveModule<Delivery> module;
    BlockFirstJob();
    EXPECT_EQ(HandOver("f"), 0U);
    EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
}

}  // namespace

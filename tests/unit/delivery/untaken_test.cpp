#include "delivery_fixture.h"

namespace {

/// The store remembers what the module has not taken, and forgets it when the module says so.
class UntakenTest : public DeliveryTest {
  protected:
    void SetUp() override {
        DeliveryTest::SetUp();
        FakeAction("FileStoreGetUntakenFiles ()", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            for (std::uint32_t i = 0; container->Has("Taken") && i < container->Count("Taken"); ++i)
                untaken_.erase(container->GetContainer("Taken", i).GetString("FileName"));
            if (!container->Has("Taken")) {
                ++asked_;
                std::uint32_t index = 0;
                for (const auto& [name, file] : untaken_)
                    container->SetContainer("Values", file, index++);
            }
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
    bool HasAsked() {
        return Eventually([this] {
            const std::lock_guard lock(mutex_);
            return asked_ > 0;
        });
    }
    /// A folder where the file of the first job should go.
    void RefuseFirstJob() { TempFolder::Write(Pending() + "/00000000000000000001.xml/x", ""); }

  private:
    std::mutex mutex_;
    std::map<std::string, KelContainer> untaken_;
    int asked_ = 0;
};

TEST_F(UntakenTest, JobOnTheDiskIsReported) {
    ActiveModule<Delivery> module;
    ASSERT_TRUE(HasAsked());
    EXPECT_EQ(HandOver("f"), 0U);
    EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
    EXPECT_EQ(HandOver("f"), 0U) << "it is in place already";
    EXPECT_TRUE(Eventually([this] { return UntakenCount() == 0; }));
}

TEST_F(UntakenTest, FilesWhoseJobCouldNotBeWrittenDownAreDeliveredAfterTheRestart) {
    const std::string inTheWay = root_ / "data/Delivery/Inbox/T";
    for (const bool isCopied : {true, false}) {
        SCOPED_TRACE(isCopied);
        const std::string name = isCopied ? "copied" : "waiting";
        {
            RunningModule<Delivery> module;  // its threads do not run, as if it had been killed
            RefuseFirstJob();
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
    }
}

}  // namespace

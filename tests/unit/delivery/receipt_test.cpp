#include "delivery_fixture.h"

namespace {

using ReceiptTest = DeliveryTest;

TEST_F(ReceiptTest, TellsEverythingAboutADeliveredFile) {
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    ASSERT_EQ(Announce(Stored("Package", "a b'c", "content")), 0U);
    ASSERT_TRUE(Eventually([this] { return ReceiptCount() == 1; }));
    const KelContainer& offer = offers_[0];
    const KelContainer& receipt = receipts_[0];
    EXPECT_EQ(offer.GetString("FileType"), "DeliveryReceipt");
    EXPECT_EQ(offer.GetString("FileLabel"), "Package");
    EXPECT_EQ(offer.GetString("FileName"),
              kGuid + ("-" + TextMd5("content")) + "-" + receipt.GetString("Time") + ".xml");
    EXPECT_TRUE(offer.GetBool("Upstream"));
    EXPECT_EQ(receipt.GetString("GUID"), kGuid);
    EXPECT_EQ(receipt.GetString("DeviceUrl"), std::string("north:1610/") + kGuid);
    EXPECT_EQ(receipt.GetString("FileType"), "Package");
    EXPECT_EQ(receipt.GetString("FileLabel"), "label");
    EXPECT_EQ(receipt.GetString("FileName"), "a b'c");
    EXPECT_EQ(receipt.GetString("FileChecksum"), TextMd5("content"));
    EXPECT_EQ(receipt.GetInt64("FileSize"), 7);
    EXPECT_EQ(receipt.GetString("Status"), "delivered");
    EXPECT_EQ(receipt.GetString("Message", "none"), "");
    EXPECT_GT(receipt.GetInt64("Time"), 1700000000);
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
}

TEST_F(ReceiptTest, IsSentOncePerContent) {
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
    ASSERT_EQ(Announce(Stored("T", "f", "other")), 0U);
    ASSERT_TRUE(Eventually([this] { return ReceiptCount() == 2; }));
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
    EXPECT_EQ(Announce(Stored("T", "f", "other")), 0U);
    EXPECT_TRUE(std::filesystem::is_empty(Pending()));
    EXPECT_EQ(ReceiptCount(), 2U);
}

TEST_F(ReceiptTest, TellsHowTheCommandEnded) {
    struct Case {
        const char* command;
        const char* status;
        const char* message;
    };
    for (const Case& test : {Case{"/bin/true", "delivered", ""},
                             Case{"/bin/false", "failed", "/bin/false failed with exit code 1"},
                             Case{"/nonexistent/program", "failed",
                                  "/nonexistent/program could not be started: No such file or directory"}}) {
        WriteIni("Delivery", std::string("[Commands]\nT = ") + test.command + "\n");
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        const std::size_t before = ReceiptCount();
        ASSERT_EQ(Announce(Stored("T", "f", test.command)), 0U);
        ASSERT_TRUE(Eventually([&] { return ReceiptCount() == before + 1; })) << test.command;
        EXPECT_EQ(receipts_.back().GetString("Status"), test.status) << test.command;
        EXPECT_EQ(receipts_.back().GetString("Message"), test.message) << test.command;
    }
}

TEST_F(ReceiptTest, OutlivesTheAgentWithoutRunningTheCommandAgain) {
    const std::string ran = root_ / "ran";
    WriteIni("Delivery", "[Commands]\nT = " + Script("echo x >> '" + ran + "'; exit 3") + "\n");
    SetStoreResult(1);
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        ASSERT_EQ(Announce(Stored("T", "f", "with command")), 0U);
        ASSERT_EQ(Announce(Stored("Plain", "f", "without")), 0U);
        ASSERT_TRUE(Eventually([&] { return log_->Count(KelDebugLevel::Error, "exit code 3") == 1; }));
        ASSERT_TRUE(
            Eventually([&] { return log_->Count(KelDebugLevel::Warning, "did not take a receipt") == 1; }));
        EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    }
    SetStoreResult(0);
    TempFolder::Write(Outgoing() + "/.kel-stale", "left by a crash");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    module.Activate();
    ASSERT_TRUE(Eventually([this] { return ReceiptCount() == 2; }));
    EXPECT_EQ(Statuses(), (std::map<std::string, std::string>{{TextMd5("with command"), "failed"},
                                                              {TextMd5("without"), "delivered"}}));
    EXPECT_EQ(TempFolder::Read(ran), "x\n");
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
}

TEST_F(ReceiptTest, ASentReceiptComesOutTheSameAfterACrash) {
    SetStoreResult(1);
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
    }
    std::filesystem::copy(Pending(), root_ / "saved");
    SetStoreResult(0);
    for (std::size_t count = 1; count <= 2; ++count) {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        ASSERT_TRUE(Eventually([&] { return ReceiptCount() == count; }));
        module.Cleanup();
        std::filesystem::remove_all(Pending());
        std::filesystem::copy(root_ / "saved", Pending());  // as if it had not been removed in time
    }
    EXPECT_EQ(receipts_[0], receipts_[1]);
    EXPECT_EQ(offers_[0].GetString("FileName"), offers_[1].GetString("FileName"));
}

TEST_F(ReceiptTest, AFileThatVanishedFromTheStoreHasFailed) {
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        std::filesystem::create_directories(root_ / "data/Delivery/Inbox");
        TempFolder::Write(root_ / "data/Delivery/Inbox/T", "a file in the way");
        const KelContainer file = Stored("T", "f", "content");
        EXPECT_EQ(Announce(file), 44001U);
        std::filesystem::remove(file.GetString("FilePath"));
    }
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    ASSERT_TRUE(Eventually([this] { return ReceiptCount() == 1; }));
    EXPECT_EQ(receipts_[0].GetString("Status"), "failed");
    EXPECT_NE(receipts_[0].GetString("Message").find("no more"), KelString::npos);
}

}  // namespace

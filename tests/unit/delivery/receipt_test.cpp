#include "delivery_fixture.h"

namespace {

using ReceiptTest = DeliveryTest;
using StatusMap = std::map<std::string, std::string>;

TEST_F(ReceiptTest, TellsEverythingAboutADeliveredFile) {
    ActiveModule<Delivery> module;
    ASSERT_EQ(Announce(Stored("Package", "a b'c", "content")), 0U);
    ASSERT_TRUE(Eventually([this] { return OfferCount() == 1; }));
    const KelContainer receipt = Contents()[0];
    const std::string name = kGuid + "-" + TextMd5("content") + "-" + receipt.GetString("Time") + ".xml";
    ExpectValues(Offers()[0],
                 {"FileType=DeliveryReceipt", "FileLabel=Package", "FileName=" + name, "Upstream=true"});
    ExpectValues(receipt, {"GUID=" + kGuid, "DeviceUrl=north:1610/" + kGuid, "FileType=Package",
                           "FileLabel=label", "FileName=a b'c", "FileChecksum=" + TextMd5("content"),
                           "FileSize=7", "Status=delivered", "Message="});
    EXPECT_GT(receipt.GetInt64("Time"), 1700000000);
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
}

TEST_F(ReceiptTest, TellsHowTheCommandEnded) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"/bin/true", "delivered", ""},
        {"/bin/false", "failed", "/bin/false failed with exit code 1"},
        {"/no/program", "failed", "/no/program could not be started: No such file or directory"},
        {"relative", "delivered", ""},
        {"/bin/sh \"open", "delivered", ""}};
    for (const auto& [command, status, message] : cases) {
        WriteIni("Delivery", "[Commands]\nT = " + command + "\n");
        ActiveModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", command)), 0U);
        ASSERT_TRUE(AllJobsEnd()) << command;
        ExpectValues(Contents().back(),
                     {"FileChecksum=" + TextMd5(command), "Status=" + status, "Message=" + message});
    }
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "run no command"), 2) << "the unusable command lines";
}

TEST_F(ReceiptTest, OutlivesTheAgentWithoutRunningTheCommandAgain) {
    const std::string ran = root_ / "ran";
    RunOnArrival("echo x >> '" + ran + "'; exit 3");
    SetStoreResult(1);
    {
        ActiveModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", "with command")), 0U);
        ASSERT_EQ(Announce(Stored("Plain", "f", "without")), 0U);
        ASSERT_TRUE(IsLoggedOnce(KelDebugLevel::Error, "exit code 3"));
        ASSERT_TRUE(IsLoggedOnce(KelDebugLevel::Warning, "did not take a receipt"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing())) << "what was not taken is not left behind";
    SetStoreResult(0);
    TempFolder::Write(Outgoing() + "/.kel-stale", "left by a crash");
    RunningModule<Delivery> module;
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    module.Activate();
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_EQ(Statuses(),
              (StatusMap{{TextMd5("with command"), "failed"}, {TextMd5("without"), "delivered"}}));
    EXPECT_EQ(TempFolder::Read(ran), "x\n");
}

TEST_F(ReceiptTest, ASentReceiptComesOutTheSameAfterACrash) {
    {
        RunningModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
    }
    std::filesystem::copy(Pending(), root_ / "saved");
    for (std::size_t count = 1; count <= 2; ++count) {
        ActiveModule<Delivery> module;
        ASSERT_TRUE(Eventually([&] { return OfferCount() == count; }));
        module.Cleanup();
        std::filesystem::remove_all(Pending());
        std::filesystem::copy(root_ / "saved", Pending());  // as if it had not been removed in time
    }
    EXPECT_EQ(Contents()[0], Contents()[1]);
    EXPECT_EQ(Offers()[0].GetString("FileName"), Offers()[1].GetString("FileName"));
}

}  // namespace

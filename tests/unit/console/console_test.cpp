#include "console_fixture.h"
#include "on_threads.h"

namespace {

TEST_F(ConsoleTest, ListsTheTreeAsTheIniFileHasItNow) {
    RunningModule<Console> module;
    ExpectValues(DeviceNamed(kClient),
                 {"Name=desk", "Parent=" + kNorth, "Address=127.0.3.3:1610", "LastSeen=0"});

    WriteDevices(kNorth + "=nonsense\n");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 1U);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "nonsense"), 1);
}

TEST_F(ConsoleTest, PublishCopiesTheFileIntoTheServedFolderAndOffersItToTheStore) {
    KelContainer alias;
    FakeAction("HttpProtocolAddAlias (string AliasName, string AliasPath)",
               [&alias](KelContainer* container) {
                   alias = *container;
                   return 0U;
               });
    ActiveModule<Console> module;
    ExpectValues(alias, {"AliasName=QuarnelDatabase", "AliasPath=" + root_ / "data/Console"});

    const Texts passedOn = {"Priority=7", "WakeOnLan=true"};
    const KelContainer info = Values({"Note=x"});
    const KelContainer request = With(With(Request("DESK"), passedOn), "FileInfo", info);
    const KelContainer result = Publish(From(request, "127.0.3.1"));
    const KelString checksum = TextMd5("content");
    ExpectValues(result, {"FileChecksum=" + checksum, "FileSize=7", "Targets=1"});
    EXPECT_FALSE(result.GetString("PublicationId").empty());

    ASSERT_EQ(OfferCount(), 1U);
    const KelContainer offer = Offers()[0];
    const std::string below = "Packages/tools/" + checksum + "/setup.bin";
    ExpectValues(offer,
                 {"FileName=setup.bin", "FileChecksum=" + checksum, "FileURL=/QuarnelDatabase/" + below,
                  "FilePath=" + root_ / ("data/Console/" + below)});
    EXPECT_EQ(TempFolder::Read(offer.GetString("FilePath")), "content");
    ExpectValues(offer, passedOn);
    EXPECT_EQ(offer.GetContainer("FileInfo"), info);
    EXPECT_FALSE(offer.Has("HttpProtocolRequestInfo"));
    const KelContainer north = With({}, kNorthPath, With({}, kClientPath, {}));
    EXPECT_EQ(offer.GetContainer("DevicePath"), With({}, kMasterPath, north));
}

TEST_F(ConsoleTest, TheSameAndADamagedCopyMayBePublishedAgain) {
    TempFolder::Write(root_ / "data/Console/Incoming/.kel-stale", "left by a kill");
    RunningModule<Console> module;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Publish(Request("all")).GetInt32("Targets"), 2);
        EXPECT_EQ(TempFolder::Read(Offers().at(0).GetString("FilePath")), "content");
        TempFolder::Write(Offers()[0].GetString("FilePath"), "damaged");
    }
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Console/Incoming"));
}

TEST_F(ConsoleTest, UnusableRequestsAreRefusedAndPublishNothing) {
    WriteDevices(BothDevices() +
                 "ABCD0000-0000-0000-0000-000000000004=127.0.3.4:1/ABCD0000-0000-0000-0000-000000000004/0/"
                 "127.0.3.4/255.0.0.0 " +
                 kMaster + " client desk\n");
    RunningModule<Console> module;
    for (const std::string& bad :
         Texts{"FilePath=" + root_ / "absent", "FilePath=" + root_ / "data", "FilePath=setup.bin",
               "FilePath=", "FileType=..", "FileType=a'b", "FileType=", "FileLabel=a/b",
               "FileLabel=", "FileName=../x", "FileName=.kel-x", "Device=nobody", "Device=desk", "Device="}) {
        KelContainer request = With(Request(kNorth), {bad});
        EXPECT_EQ(Call("ConsolePublish", request), kKelErrorBadInput) << bad;
        const KelString message = request.GetString("Message");
        EXPECT_FALSE(message.empty()) << bad;
        if (bad.starts_with("Device=")) {
            EXPECT_NE(message.find("\"" + bad.substr(7) + "\""), KelString::npos) << bad;
        }
    }
    for (const char* caller : {"127.0.3.9", ""})
        EXPECT_EQ(Call("ConsolePublish", From(Request(kNorth), caller)), kKelErrorBadInput) << caller;
    EXPECT_TRUE(Offers().empty());
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Console/Packages"));
}

TEST_F(ConsoleTest, ManyThreadsMayPublishTheSameFile) {
    RunningModule<Console> module;
    OnThreads(8, [this](int) { Publish(Request("north")); });
    ASSERT_EQ(OfferCount(), 8U);
    EXPECT_EQ(TempFolder::Read(Offers()[7].GetString("FilePath")), "content");
}

}  // namespace

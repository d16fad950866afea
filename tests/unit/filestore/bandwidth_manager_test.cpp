#include <atomic>
#include <future>
#include <thread>

#include <ctime>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"

using namespace filestore;

namespace {

class BandwidthManager : public TransferTest {
  protected:
    /// A window in UTC whose slots all hold `number`.
    static KelContainer Window(const KelString& number, int type = 2, int slots = 168) {
        KelString text = number;
        for (int i = 1; i < slots; ++i)
            text += " " + number;
        return Make({{"Slots", text}, {"SlotType", type}, {"UseUTCTime", true}});
    }
    static void Load(FileStoreBandwidthManager& manager, KelContainer window) {
        manager.UpdateTransferWindow(window);
    }
    static unsigned long Rate(FileStoreBandwidthManager& manager) {
        int frameSize = 0;
        return manager.GetRate(frameSize);
    }

    FileStoreBandwidthManager manager_;
};

TEST_F(BandwidthManager, SlotsCountHoursFromMondayInTheChosenTimeZone) {
    const std::int64_t monday = 4 * 86400;  // 1970-01-05 00:00 UTC
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday, true), 0U);
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday - 1800, true), 167U);  // Sunday 23:30
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday + 2 * 86400 + 13 * 3600, true), 61U);

    const char* old = getenv("TZ");
    const KelString kept = old == nullptr ? "" : old;
    setenv("TZ", "XXX-2", 1);  // two hours east of UTC
    tzset();
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday - 1800, false), 1U);
    old == nullptr ? unsetenv("TZ") : setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST_F(BandwidthManager, SlotTypesConvertAndShareTheirValues) {
    for (const auto& [number, type, transfers, rate] : {std::tuple{"1500", 1, 1, 1UL},
                                                        {"10", 2, 3, 3},
                                                        {"2", 2, 3, 2},
                                                        {"4", 3, 2, 2000},
                                                        {"18446744073709551615", 3, 1, UINT64_MAX},
                                                        {"50", 7, 3, 50},
                                                        {"500", 8, 2, 500},
                                                        {"0x20", 2, 1, 32},
                                                        {"010", 2, 1, 8}}) {
        SCOPED_TRACE(KelFormat("%s of type %d", number, type));
        FileStoreBandwidthManager manager;
        manager.SetFrameSize(1400);
        Load(manager, Window(number, type));
        for (int i = 0; i < transfers; ++i)
            EXPECT_EQ(manager.StartTransmission(), 1400);
        EXPECT_EQ(Rate(manager), rate);
        EXPECT_EQ(manager.IsPercentage(), type == 7);
        EXPECT_EQ(manager.IsPerThousand(), type == 8);
    }
}

TEST_F(BandwidthManager, TypesWithoutSlotsKeepTheValuesOfTheWindowBefore) {
    Load(manager_, Window("99", 5));
    EXPECT_TRUE(manager_.TransfersAreDisabled());
    Load(manager_, Window("12"));
    for (const int type : {0, 4, 5, 6, 9, -1}) {
        Load(manager_, Window("99", type));
        EXPECT_EQ(Rate(manager_), 12U) << type;
        EXPECT_TRUE(manager_.BandwidthIsLimited());
    }
}

TEST_F(BandwidthManager, OverlongAndMalformedWindowsAreContained) {
    Load(manager_, Window("7", 2, 400));
    EXPECT_EQ(Rate(manager_), 7U);
    for (const char* bad : {"x", "-1", "1x", "99999999999999999999999"}) {
        Load(manager_, Window("7"));
        Load(manager_, Window(bad));
        EXPECT_TRUE(manager_.TransfersAreDisabled()) << bad;
    }
    Load(manager_, Window("7"));
    Load(manager_, Window("", 2, 1));  // one empty token: only slot 0 changes
    EXPECT_EQ(Rate(manager_), FileStoreBandwidthManager::SlotIndex(std::time(nullptr), true) == 0 ? 0U : 7U);
}

TEST_F(BandwidthManager, ClosedHourRefusesTransfersUntilTheNextLoad) {
    EXPECT_FALSE(manager_.TransfersAreDisabled());
    Load(manager_, Window("7"));
    EXPECT_FALSE(manager_.TransfersAreDisabled());
    manager_.CancelAllTransfers();
    EXPECT_TRUE(manager_.TransfersAreDisabled());
    EXPECT_EQ(manager_.StartTransmission(), -1);
    Load(manager_, Window("8"));
    manager_.StartTransmission();
    EXPECT_EQ(Rate(manager_), 8U) << "a refused transmission was counted";
    manager_.StartTransmission();
    EXPECT_EQ(Rate(manager_), 4U);
    manager_.EndTransmission();
    EXPECT_EQ(Rate(manager_), 8U) << "an ended transmission keeps its share";
}

TEST_F(BandwidthManager, AllWindowsAreReplacedByTheModulesAnswer) {
    Fake("TransferWindowCheckAllWindows ()", [](KelContainer& container) {
        KelContainer values;
        std::uint32_t index = 0;
        for (const auto& [direction, rate] : {std::pair{2, "5"}, {9, "6"}, {3, "7"}, {2, "8"}}) {
            values.SetInt32("Direction", direction, index);
            values.SetContainer("Values", Window(rate), index++);
        }
        container.SetContainer("Values", values);
        return 0U;
    });
    Load(FileStore::bmTrackUsageUp, Window("1"));
    FileStore::ActionHandler_FileStoreTransferWindowCallback(nullptr);
    EXPECT_FALSE(FileStore::bmTrackUsageUp.BandwidthIsLimited());
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 8U);
    EXPECT_EQ(Rate(FileStore::bmTrackUsageMulticast), 7U);

    FakeResult("TransferWindowCheckAllWindows ()", 1);
    FileStore::UpdateAllTransferWindows();
    EXPECT_TRUE(FileStore::bmTrackUsageDown.BandwidthIsLimited()) << "a failed question dropped the windows";
}

TEST_F(BandwidthManager, AnOlderAnswerDoesNotReplaceANewerOne) {
    std::atomic<int> asked = 0;
    std::promise<void> firstIsAsked;
    Fake("TransferWindowCheckAllWindows ()", [&](KelContainer& container) {
        const bool isFirst = ++asked == 1;
        KelContainer values;
        values.SetInt32("Direction", 2);
        values.SetContainer("Values", Window(isFirst ? "5" : "6"));
        container.SetContainer("Values", values);
        if (!isFirst) return 0U;
        firstIsAsked.set_value();
        for (int i = 0; i < 20 && asked == 1; ++i)  // leaves the second one time to overtake
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return 0U;
    });
    std::thread first([] { FileStore::UpdateAllTransferWindows(); });
    firstIsAsked.get_future().wait();
    FileStore::UpdateAllTransferWindows();
    first.join();
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 6U);
}

TEST_F(BandwidthManager, WindowWithoutSlotsIsAskedForByItsDirection) {
    Fake("TransferWindowCheckWindow ()", [](KelContainer& container) {
        const bool isDown = container.GetInt32("Direction") == TransferWindowDirectionDown;
        container.Clear();
        if (isDown) container.SetContainer("Values", Window("3"));
        return 0U;
    });
    Load(manager_, Window("1"));
    manager_.SetDirection(TransferWindowDirectionDown);
    Load(manager_, {});
    EXPECT_EQ(Rate(manager_), 3U);
    manager_.SetDirection(TransferWindowDirectionUp);
    Load(manager_, {});
    EXPECT_FALSE(manager_.BandwidthIsLimited());
}

TEST_F(BandwidthManager, ClientCountComesFromTheParent) {
    const KelContainer values =
        Make({{"ThreadCount", 4}, {"BwPort", 1700}, {"BwPingFrequency", 60}, {"BwPingDuration", 250}});
    ScriptedServer parent([values](const auto&) { return ScriptedServer::ActionResult(0, values); });
    SetParent("127.0.1.1", parent.Port());
    unsigned int clients = 0, port = 0, duration = 0;
    unsigned long checkEvery = 0, pingEvery = 0;
    const auto ask = [&](bool firstTime) {
        return manager_.GetClientCount(firstTime, clients, port, checkEvery, pingEvery, duration);
    };
    EXPECT_TRUE(ask(false));
    EXPECT_EQ(clients, 4U);
    EXPECT_EQ(port, 0U) << "only the first answer holds the probe's values";
    EXPECT_TRUE(ask(true));
    EXPECT_EQ(port, 1700U);
    EXPECT_EQ(checkEvery, 500000000UL);  // absent: 500 seconds, in microseconds
    EXPECT_EQ(pingEvery, 60000000UL);
    EXPECT_EQ(duration, 250U);
    EXPECT_TRUE(parent.Requests()[1].Arguments().GetBool("FirstTime"));

    relayValues.SetString("ParentName", "");
    EXPECT_FALSE(ask(false));
    EXPECT_EQ(clients, 0U);
}

TEST_F(BandwidthManager, ProbeMeasuresNothingWithoutAPeer) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(manager_.BandwidthEstimationTCP(IpAddress(), 1700, 10), 0U);
    EXPECT_EQ(manager_.BandwidthEstimationTCP(*IpAddress::Parse("127.0.1.1"), 1, 10), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error ulHostAddr = 0\nError Connect\n");
}

TEST_F(BandwidthManager, ProgressIsGivenInPerCent) {
    const KelString path = MakeFile("partial", KelString(30, 'x'));
    for (const auto& [status, size, progress] : {std::tuple{kStatusAvailable, 0L, "100 %"},
                                                 {kStatusUnicastAvailable, 60, "100 %"},
                                                 {kStatusDownloading, 60, "50 %"},
                                                 {kStatusReceiving, 20, "100 %"},
                                                 {kStatusDownloading, 0, "N/A"},
                                                 {kStatusMissing, 60, "N/A"},
                                                 {kStatusDownloading, INT64_MAX, "0 %"}})
        EXPECT_EQ(FileStore::getFileTransferPercent(status, path, size), progress) << status << size;
    EXPECT_EQ(FileStore::getFileTransferPercent(kStatusDownloading, "absent", 60), "N/A");
}

}  // namespace

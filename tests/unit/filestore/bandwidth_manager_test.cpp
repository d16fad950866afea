#include <ctime>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"

using namespace filestore;

namespace {

KelString Repeat(const KelString& number, int count = 168) {
    KelString text = number;
    for (int i = 1; i < count; ++i)
        text += " " + number;
    return text;
}

KelContainer Window(const KelString& slots, int type) {
    KelContainer window;
    window.SetString("Slots", slots);
    window.SetInt32("SlotType", type);
    window.SetBool("UseUTCTime", true);
    return window;
}

unsigned long Rate(FileStoreBandwidthManager& manager) {
    int frameSize = 0;
    return manager.GetRate(frameSize);
}

void Load(FileStoreBandwidthManager& manager, const KelString& slots, int type) {
    KelContainer window = Window(slots, type);
    manager.UpdateTransferWindow(window);
}

TEST(BandwidthManager, SlotCountsHoursFromMonday) {
    const std::int64_t monday = 4 * 86400;  // 1970-01-05 00:00 UTC
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday, true), 0U);
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday - 1800, true), 167U);  // Sunday 23:30
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(monday + 2 * 86400 + 13 * 3600, true), 61U);
}

TEST(BandwidthManager, LocalSlotFollowsTheTimeZone) {
    const char* old = getenv("TZ");
    const KelString kept = old == nullptr ? "" : old;
    setenv("TZ", "XXX-2", 1);  // two hours east of UTC
    tzset();
    EXPECT_EQ(FileStoreBandwidthManager::SlotIndex(4 * 86400 - 1800, false), 1U);
    old == nullptr ? unsetenv("TZ") : setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST(BandwidthManager, SlotTypesConvertAndShareTheirValues) {
    struct Case {
        const char* number;
        int type;
        int transfers;
        unsigned long rate;
        bool percent;
        bool perThousand;
    };
    for (const Case& test : {Case{"1500", 1, 1, 1, false, false}, Case{"10", 2, 3, 3, false, false},
                             Case{"2", 2, 3, 2, false, false}, Case{"4", 3, 2, 2000, false, false},
                             Case{"50", 7, 3, 50, true, false}, Case{"500", 8, 2, 500, false, true},
                             Case{"0x20", 2, 1, 32, false, false}, Case{"010", 2, 1, 8, false, false}}) {
        SCOPED_TRACE(KelString(test.number) + " of type " + std::to_string(test.type));
        FileStoreBandwidthManager manager;
        manager.SetFrameSize(1400);
        Load(manager, Repeat(test.number), test.type);
        for (int i = 0; i < test.transfers; ++i)
            EXPECT_EQ(manager.StartTransmission(), 1400);
        EXPECT_EQ(Rate(manager), test.rate);
        EXPECT_EQ(manager.IsPercentage(), test.percent);
        EXPECT_EQ(manager.IsPerThousand(), test.perThousand);
    }
}

TEST(BandwidthManager, EndedTransfersGiveTheirShareBack) {
    FileStoreBandwidthManager manager;
    Load(manager, Repeat("12"), 2);
    manager.StartTransmission();
    manager.StartTransmission();
    EXPECT_EQ(Rate(manager), 6U);
    manager.EndTransmission();
    EXPECT_EQ(Rate(manager), 12U);
}

TEST(BandwidthManager, TypesWithoutSlotsKeepTheValuesOfTheWindowBefore) {
    for (const int type : {0, 4, 5, 6, 9, -1}) {
        FileStoreBandwidthManager manager;
        Load(manager, Repeat("12"), 2);
        Load(manager, Repeat("99"), type);
        EXPECT_EQ(Rate(manager), 12U) << type;
        EXPECT_TRUE(manager.BandwidthIsLimited());
    }
    FileStoreBandwidthManager fresh;
    Load(fresh, Repeat("99"), 5);
    EXPECT_TRUE(fresh.TransfersAreDisabled());
}

TEST(BandwidthManager, OverlongAndMalformedWindowsAreContained) {
    FileStoreBandwidthManager manager;
    Load(manager, Repeat("7", 400), 2);
    EXPECT_EQ(Rate(manager), 7U);
    Load(manager, Repeat("18446744073709551615"), 3);
    EXPECT_EQ(Rate(manager), UINT64_MAX);
    for (const char* bad : {"x", "-1", "1x", "99999999999999999999999"}) {
        Load(manager, Repeat("7"), 2);
        Load(manager, Repeat(bad), 2);
        EXPECT_TRUE(manager.TransfersAreDisabled()) << bad;
    }
    Load(manager, Repeat("7"), 2);
    Load(manager, "", 2);  // one empty token: only slot 0 changes
    EXPECT_EQ(Rate(manager), FileStoreBandwidthManager::SlotIndex(std::time(nullptr), true) == 0 ? 0U : 7U);
}

TEST(BandwidthManager, ClosedHourRefusesTransfersUntilTheNextLoad) {
    FileStoreBandwidthManager manager;
    EXPECT_FALSE(manager.TransfersAreDisabled());
    Load(manager, Repeat("7"), 2);
    EXPECT_FALSE(manager.TransfersAreDisabled());
    manager.CancelAllTransfers();
    EXPECT_TRUE(manager.TransfersAreDisabled());
    EXPECT_EQ(manager.StartTransmission(), -1);
    Load(manager, Repeat("8"), 2);
    manager.StartTransmission();
    EXPECT_EQ(Rate(manager), 8U) << "a refused transmission was counted";
}

class TransferWindowTest : public TransferTest {};

TEST_F(TransferWindowTest, AllWindowsAreReplacedByTheModulesAnswer) {
    Fake("TransferWindowCheckAllWindows ()", [](KelContainer& container) {
        KelContainer values;
        const KelVector<std::pair<int, const char*>> windows = {{2, "5"}, {9, "6"}, {3, "7"}, {2, "8"}};
        for (std::uint32_t i = 0; i < windows.size(); ++i) {
            values.SetInt32("Direction", windows[i].first, i);
            values.SetContainer("Values", Window(Repeat(windows[i].second), 2), i);
        }
        container.SetContainer("Values", values);
        return 0U;
    });
    Load(FileStore::bmTrackUsageUp, Repeat("1"), 2);
    FileStore::ActionHandler_FileStoreTransferWindowCallback(nullptr);
    EXPECT_FALSE(FileStore::bmTrackUsageUp.BandwidthIsLimited());
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 8U);
    EXPECT_EQ(Rate(FileStore::bmTrackUsageMulticast), 7U);

    FakeResult("TransferWindowCheckAllWindows ()", 1);
    FileStore::UpdateAllTransferWindows();
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 8U);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Detail, "No transfer window."));
}

TEST_F(TransferWindowTest, ManagerWithoutSlotsAsksForItsOwnWindow) {
    Fake("TransferWindowCheckWindow ()", [](KelContainer& container) {
        const bool isDown = container.GetInt32("Direction") == 2;
        container.Clear();
        if (isDown) container.SetContainer("Values", Window(Repeat("3"), 2));
        return 0U;
    });
    for (FileStoreBandwidthManager* manager : {&FileStore::bmTrackUsageUp, &FileStore::bmTrackUsageDown}) {
        Load(*manager, Repeat("1"), 2);
        manager->SetDirection(manager == &FileStore::bmTrackUsageUp ? TransferWindowDirectionUp
                                                                    : TransferWindowDirectionDown);
        KelContainer none;
        manager->UpdateTransferWindow(none);
    }
    EXPECT_FALSE(FileStore::bmTrackUsageUp.BandwidthIsLimited());
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 3U);
}

TEST_F(TransferWindowTest, ClientCountComesFromTheParent) {
    KelContainer values;
    values.SetInt32("ThreadCount", 4);
    values.SetInt32("BwPort", 1700);
    values.SetInt32("BwPingFrequency", 60);
    values.SetInt32("BwPingDuration", 250);
    ScriptedServer parent([values](const auto&) { return ScriptedServer::ActionResult(0, values); });
    SetParent("127.0.1.1", parent.Port());
    unsigned int clients = 0, port = 0, duration = 0;
    unsigned long checkEvery = 0, pingEvery = 0;
    const auto ask = [&](bool firstTime) {
        return FileStore::bmTrackUsageUp.GetClientCount(firstTime, clients, port, checkEvery, pingEvery,
                                                        duration);
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

TEST_F(TransferWindowTest, ProbeMeasuresNothingWithoutAPeer) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(FileStore::bmTrackUsageUp.BandwidthEstimationTCP(IpAddress(), 1700, 10), 0U);
    EXPECT_EQ(FileStore::bmTrackUsageUp.BandwidthEstimationTCP(*IpAddress::Parse("127.0.1.1"), 1, 10), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error ulHostAddr = 0\nError Connect\n");
}

TEST_F(TransferWindowTest, ProgressIsGivenInPerCent) {
    const KelString path = MakeFile("partial", KelString(30, 'x'));
    struct Case {
        const char* status;
        long long expected;
        const char* text;
    };
    for (const Case& test : {Case{kStatusAvailable, 0, "100 %"}, Case{kStatusUnicastAvailable, 60, "100 %"},
                             Case{kStatusDownloading, 60, "50 %"}, Case{kStatusReceiving, 20, "100 %"},
                             Case{kStatusDownloading, 0, "N/A"}, Case{kStatusMissing, 60, "N/A"},
                             Case{kStatusDownloading, INT64_MAX, "0 %"}})
        EXPECT_EQ(FileStore::getFileTransferPercent(test.status, path, test.expected), test.text)
            << test.status << test.expected;
    EXPECT_EQ(FileStore::getFileTransferPercent(kStatusDownloading, path + "x", 60), "N/A");
}

}  // namespace

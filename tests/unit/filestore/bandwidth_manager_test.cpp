#include <atomic>
#include <future>
#include <thread>

#include "filestore/file_store_fixture.h"

namespace {

struct BandwidthManager : StoreTest {
    static unsigned long Rate(FileStoreBandwidthManager& manager) {
        int frameSize = 0;
        return manager.GetRate(frameSize);
    }
    static void Load(FileStoreBandwidthManager& to, KelContainer window) { to.UpdateTransferWindow(window); }
    FileStoreBandwidthManager manager_;
};

TEST_F(BandwidthManager, SlotsCountHoursFromMondayInTheChosenTimeZone) {
    const auto slot = WeekHour;
    const std::int64_t monday = 4 * 86400;  // 1970-01-05 00:00 UTC
    EXPECT_EQ(slot(monday, true), 0U);
    EXPECT_EQ(slot(monday - 1800, true), 167U);  // Sunday 23:30
    EXPECT_EQ(slot(monday + 2 * 86400 + 13 * 3600, true), 61U);
    const char* old = getenv("TZ");
    const KelString kept = old == nullptr ? "" : old;
    setenv("TZ", "XXX-2", 1);  // two hours east of UTC
    tzset();
    EXPECT_EQ(slot(monday - 1800, false), 1U);
    old == nullptr ? unsetenv("TZ") : setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST_F(BandwidthManager, SlotTypesConvertAndShareTheirValuesWhatIsMalformedIsClosed) {
    const bool isSlot0 = WeekHour(std::time(nullptr), true) == 0;
    // beside a window of 12: what a new one does not say stays
    for (const auto& [number, type, slots, transfers, rate] :
         Table<const char*, int, int, int, unsigned long>{
             {"1500", 1, 168, 1, 1},
             {"10", 2, 168, 3, 3},
             {"2", 2, 168, 3, 2},
             {"4", 3, 168, 2, 2000},
             {"18446744073709551615", 3, 168, 1, UINT64_MAX},
             {"50", 7, 168, 3, 50},
             {"500", 8, 168, 2, 500},
             {"0x20", 2, 168, 1, 32},
             {"99", 0, 168, 1, 12},
             {"99", 9, 168, 1, 12},
             {"7", 2, 400, 1, 7},
             {"", 2, 1, 1, isSlot0 ? 0 : 12},  // one empty token: only slot 0 changes
             {"-1", 2, 168, 1, 0},
             {"1x", 2, 168, 1, 0},
             {"99999999999999999999999", 2, 168, 1, 0}}) {
        SCOPED_TRACE(KelFormat("'%s' of type %d", number, type));
        FileStoreBandwidthManager manager;
        manager.SetFrameSize(1400);
        Load(manager, Window("12"));
        Load(manager, Window(number, type, slots));
        EXPECT_EQ(manager.TransfersAreDisabled(), rate == 0);
        for (int i = 0; i < transfers; ++i)
            EXPECT_EQ(manager.StartTransmission(), rate == 0 ? -1 : 1400);
        EXPECT_EQ(Rate(manager), rate);
        EXPECT_EQ(manager.IsPercentage(), type == 7);
        EXPECT_EQ(manager.IsPerThousand(), type == 8);
    }
    Load(manager_, Window("99", 5));
    EXPECT_TRUE(manager_.TransfersAreDisabled());
}

TEST_F(BandwidthManager, ClosedHourRefusesTransfersUntilTheNextLoad) {
    EXPECT_FALSE(manager_.TransfersAreDisabled());
    Load(manager_, Window("7"));
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

TEST_F(BandwidthManager, WindowsAreReplacedByTheModulesAnswer) {
    Fake("TransferWindowCheckAllWindows ()", [](KelContainer& container) {
        KelContainer values;
        std::uint32_t index = 0;
        for (const auto& [direction, rate] : {std::pair{2, "5"}, {9, "6"}, {3, "7"}, {2, "8"}}) {
            values.SetInt32("Direction", direction, index);
            values.SetContainer("Values", Window(rate), index++);
        }
        container = Make({{"Values", values}});
        return 0U;
    });
    Load(FileStore::bmTrackUsageUp, Window("1"));
    Ask("FileStoreTransferWindowCallback");
    EXPECT_FALSE(FileStore::bmTrackUsageUp.BandwidthIsLimited());
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 8U);
    EXPECT_EQ(Rate(FileStore::bmTrackUsageMulticast), 7U);
    FakeResult("TransferWindowCheckAllWindows ()", 1);
    FileStore::UpdateAllTransferWindows();
    EXPECT_TRUE(FileStore::bmTrackUsageDown.BandwidthIsLimited()) << "a failed question dropped the windows";

    // A window without slots is asked for by its direction.
    Fake("TransferWindowCheckWindow ()", [](KelContainer& container) {
        const bool isDown = container.GetInt32("Direction") == TransferWindowDirectionDown;
        container = isDown ? Make({{"Values", Window("3")}}) : KelContainer();
        return 0U;
    });
    manager_.SetDirection(TransferWindowDirectionDown);
    Load(manager_, {});
    EXPECT_EQ(Rate(manager_), 3U);
    manager_.SetDirection(TransferWindowDirectionUp);
    Load(manager_, {});
    EXPECT_FALSE(manager_.BandwidthIsLimited());
}

TEST_F(BandwidthManager, AnOlderAnswerDoesNotReplaceANewerOne) {
    std::atomic<int> asked = 0;
    std::promise<void> firstIsAsked;
    Fake("TransferWindowCheckAllWindows ()", [&](KelContainer& container) {
        const bool isFirst = ++asked == 1;
        container = Make({{"Values", Make({{"Direction", 2}, {"Values", Window(isFirst ? "5" : "6")}})}});
        if (!isFirst) return 0U;
        firstIsAsked.set_value();
        for (int i = 0; i < 20 && asked == 1; ++i)  // leaves the second one time to overtake
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return 0U;
    });
    std::jthread first([] { FileStore::UpdateAllTransferWindows(); });
    firstIsAsked.get_future().wait();
    FileStore::UpdateAllTransferWindows();
    first.join();
    EXPECT_EQ(Rate(FileStore::bmTrackUsageDown), 6U);
}

TEST_F(BandwidthManager, ClientCountComesFromTheParentAndAProbeNeedsAPeer) {
    const KelContainer probe = Make({{"BwPort", 1700}, {"BwPingFrequency", 60}, {"BwPingDuration", 250}});
    AnswerAsParent(0, With(probe, {{"ThreadCount", 4}}));
    unsigned int clients = 0, port = 0, duration = 0;
    unsigned long checkEvery = 0, pingEvery = 0;
    const auto ask = [&](bool firstTime) {
        return manager_.GetClientCount(firstTime, clients, port, checkEvery, pingEvery, duration);
    };
    EXPECT_TRUE(ask(false));
    EXPECT_EQ(std::tuple(clients, port), std::tuple(4U, 0U))
        << "the first answer alone has the probe's values";
    EXPECT_TRUE(ask(true));
    // absent: 500 seconds; times in microseconds
    EXPECT_EQ(std::tuple(port, checkEvery, pingEvery, duration),
              std::tuple(1700U, 500000000UL, 60000000UL, 250U));
    EXPECT_TRUE(Parent().Requests()[1].Arguments().GetBool("FirstTime"));
    SetParent("", 1);
    EXPECT_FALSE(ask(false));
    EXPECT_EQ(clients, 0U);
    for (const IpAddress& address : {IpAddress(), *IpAddress::Parse("127.0.1.1")})
        EXPECT_EQ(manager_.BandwidthEstimationTCP(address, 1, 10), 0U);
}

}  // namespace

#include "kelcore/http/managed_transmission.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "kelcore/http/rate_pacer.h"
#include "kelcore/http/speed_watch.h"

using namespace std::chrono_literals;

namespace {

using Clock = HttpManagedTransmission::Clock;

/// A manager whose answers the test sets.
class FakeManager : public HttpBandwidthManager {
  public:
    int StartTransmission() override { return refuse ? -1 : (++running, 1400); }
    void EndTransmission() override { --running; }
    unsigned long GetRate(int& frameSize) override {
        frameSize = 1400;
        ++reads;
        return closeAfterReads != 0 && reads > closeAfterReads ? 0 : rate;
    }
    bool BandwidthIsLimited() override { return limited; }
    int GetFrameSize() override { return 1400; }
    bool IsPercentage() override { return percentage; }
    bool IsPerThousand() override { return perThousand; }
    unsigned long BandwidthEstimationTCP(IpAddress const& address, unsigned int probePort,
                                         unsigned int) override {
        probes.push_back(address.ToText() + ":" + std::to_string(probePort));
        return bytesPerSecond;
    }
    bool GetClientCount(bool firstTime, unsigned int& clientCount, unsigned int& bwPort,
                        unsigned long& clientCheckFrequency, unsigned long& pingFrequency,
                        unsigned int& pingDuration) override {
        counts.push_back(firstTime);
        clientCount = clients;
        if (firstTime) {
            bwPort = port;
            clientCheckFrequency = 500'000'000;
            pingFrequency = 500'000'000;
            pingDuration = 10;
        }
        return peerAnswers;
    }

    bool refuse = false, limited = true, percentage = false, perThousand = false, peerAnswers = true;
    unsigned long rate = 8'000'000;
    int closeAfterReads = 0;
    unsigned int clients = 1, port = 7000;
    unsigned long bytesPerSecond = 0;
    int running = 0, reads = 0;
    std::vector<std::string> probes;
    std::vector<bool> counts;
};

}  // namespace

TEST(RatePacer, SumsUpToTheRateWhateverThePieces) {
    for (const std::uint64_t piece : {1U, 1400U, 16384U, 1U << 20}) {
        HttpRatePacer pacer;
        Clock::time_point now = Clock::time_point(1000s);
        pacer.Restart(now);
        pacer.SetRate(8'000'000, now);
        const Clock::time_point start = now;
        const std::uint64_t pieces = (4U << 20) / piece / (piece == 1 ? 64 : 1);
        for (std::uint64_t i = 0; i < pieces; ++i) {
            pacer.Add(piece, now);
            now += pacer.Remaining(now);
        }
        const double seconds = std::chrono::duration<double>(now - start).count();
        EXPECT_NEAR(seconds, static_cast<double>(pieces * piece) / 1e6, 0.005) << piece;
    }
}

TEST(RatePacer, AStallEarnsAtMostOneSecondOfCredit) {
    HttpRatePacer pacer;
    Clock::time_point now = Clock::time_point(1000s);
    pacer.SetRate(8'000, now);  // 1000 bytes a second
    pacer.Add(1000, now);
    EXPECT_EQ(pacer.Remaining(now), 1s);
    now += 3600s;
    pacer.Add(3000, now);
    EXPECT_EQ(pacer.Remaining(now), 2s);
}

TEST(RatePacer, WhatIsUnpaidIsPaidAtTheNewRate) {
    HttpRatePacer pacer;
    Clock::time_point now = Clock::time_point(1000s);
    pacer.SetRate(8'000, now);
    pacer.Add(10'000, now);
    now += 4s;  // 6000 bytes unpaid
    pacer.SetRate(80'000, now);
    EXPECT_NEAR(std::chrono::duration<double>(pacer.Remaining(now)).count(), 0.6, 0.001);
    pacer.SetRate(1, now);
    pacer.Add(UINT64_MAX / 2, now);
    EXPECT_GT(pacer.Remaining(now), 86400s) << "no overflow";
}

TEST(ManagedTransmission, SleepTimeIsWhatTheRateAsksForBeyondTheTimeGoneBy) {
    const Clock::time_point start(1000s);
    EXPECT_EQ(HttpManagedTransmission::SleepTime(1000, 8000, start, start), 1s);
    EXPECT_EQ(HttpManagedTransmission::SleepTime(1000, 8000, start, start + 400ms), 600ms);
    EXPECT_EQ(HttpManagedTransmission::SleepTime(1000, 8000, start, start + 5s), 0s);
}

TEST(ManagedTransmission, StartsOnceAndEndsOnce) {
    FakeManager manager;
    {
        HttpManagedTransmission transmission(manager);
        EXPECT_TRUE(transmission.Start());
        EXPECT_TRUE(transmission.Start());
        EXPECT_EQ(manager.running, 1);
        transmission.End();
        EXPECT_EQ(manager.running, 0);
        EXPECT_TRUE(transmission.Start());
    }
    EXPECT_EQ(manager.running, 0);
    manager.refuse = true;
    HttpManagedTransmission refused(manager);
    EXPECT_FALSE(refused.Start());
    refused.End();
    EXPECT_EQ(manager.running, 0);
}

TEST(ManagedTransmission, StopsWhileItSleepsWhenTheWindowClosesOrTheCallerCancels) {
    FakeManager manager;
    manager.rate = 1;  // kbit/s: a megabyte takes over two hours
    manager.closeAfterReads = 2;
    HttpManagedTransmission transmission(manager);
    ASSERT_TRUE(transmission.Start());
    EXPECT_FALSE(transmission.Pass(1 << 20));

    manager.closeAfterReads = 0;
    int asked = 0;
    EXPECT_FALSE(transmission.Pass(1 << 20, [&asked] { return ++asked > 1; }));
    manager.limited = false;
    EXPECT_TRUE(transmission.Pass(1 << 20)) << "without a window nothing is paced";
}

TEST(ManagedTransmission, ARaisedRateFreesASleepingTransmission) {
    FakeManager manager;
    manager.rate = 1;
    HttpManagedTransmission transmission(manager);
    ASSERT_TRUE(transmission.Start());
    int asked = 0;
    EXPECT_TRUE(transmission.Pass(1 << 20, [&] {
        if (++asked == 2) manager.rate = 100'000'000;
        return asked > 50;
    }));
}

TEST(ManagedTransmission, RelativeRatesAreSharesOfTheProbedBandwidth) {
    struct Case {
        const char* name;
        bool perThousand, peerAnswers;
        unsigned int port, clients;
        unsigned long bytesPerSecond, rate;
        std::size_t pieceBytes;  // a twentieth of a second at the expected rate
        std::size_t probes;
    };
    const Case cases[] = {
        {"half", false, true, 7000, 1, 2'000'000, 50, 50'000, 1},
        {"half among four", false, true, 7000, 4, 2'000'000, 50, 12'500, 1},
        {"per thousand", true, true, 7000, 1, 2'000'000, 50, 5'000, 1},
        {"over the whole", false, true, 7000, 1, 2'000'000, 300, 100'000, 1},
        {"no clients told", false, true, 7000, 0, 2'000'000, 50, 50'000, 1},
        {"no probe offered", false, true, 0, 1, 2'000'000, 80, 50'000, 0},
        {"probe fails", false, true, 7000, 1, 0, 80, 50'000, 1},
        {"peer silent", false, false, 7000, 1, 2'000'000, 80, 50'000, 0},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        FakeManager manager;
        manager.percentage = !test.perThousand;
        manager.perThousand = test.perThousand;
        manager.peerAnswers = test.peerAnswers;
        manager.port = test.port;
        manager.clients = test.clients;
        manager.bytesPerSecond = test.bytesPerSecond;
        manager.rate = test.rate;
        HttpManagedTransmission transmission(manager);
        EXPECT_TRUE(transmission.NeedsPeer());
        transmission.SetPeer(IpAddress(0x0A000001));
        EXPECT_FALSE(transmission.NeedsPeer());
        ASSERT_TRUE(transmission.Start());
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(transmission.Pass(10));
        EXPECT_EQ(transmission.PieceBytes(), test.pieceBytes);
        ASSERT_EQ(manager.probes.size(), test.probes);
        if (test.probes != 0) {
            EXPECT_EQ(manager.probes[0], "10.0.0.1:7000");
        }
        EXPECT_EQ(manager.counts, std::vector<bool>{true}) << "not asked again before its time";
    }
}

TEST(SpeedWatch, GivesUpBelowTheLeastRateOverAWholeWindowOnly) {
    const Clock::time_point start(1000s);
    HttpSpeedWatch watch(start);
    EXPECT_FALSE(watch.IsTooSlow(start + 29s, false));
    watch.OnBytes(30'000);
    EXPECT_FALSE(watch.IsTooSlow(start + 30s, false));
    watch.OnBytes(29'999);
    EXPECT_FALSE(watch.IsTooSlow(start + 59s, false));
    EXPECT_TRUE(watch.IsTooSlow(start + 60s, false));
}

TEST(SpeedWatch, APacedExchangeOnlyHasToMove) {
    const Clock::time_point start(1000s);
    HttpSpeedWatch watch(start);
    watch.OnBytes(1);
    EXPECT_FALSE(watch.IsTooSlow(start + 10s, true));
    EXPECT_FALSE(watch.IsTooSlow(start + 30s, false)) << "it was paced in this window";
    EXPECT_TRUE(watch.IsTooSlow(start + 60s, true));
}

TEST(SpeedWatch, ALargeRequestLeavesThePeerTimeForItsDisk) {
    const Clock::time_point start(1000s);
    HttpSpeedWatch watch(start);
    watch.OnRequestSent(1'000'000'000, start);
    EXPECT_FALSE(watch.IsTooSlow(start + 129s, false));
    EXPECT_TRUE(watch.IsTooSlow(start + 130s, false));
}

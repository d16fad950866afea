#include "kelcore/http/managed_transmission.h"

#include <gtest/gtest.h>

#include "fake_bandwidth_manager.h"
#include "kelcore/http/rate_queue.h"
#include "kelcore/http/speed_watch.h"

using namespace std::chrono_literals;

namespace {

constexpr HttpManagedTransmission::Clock::time_point kStart(1000s);

TEST(RateQueue, SumsUpToTheRateWhateverThePieces) {
    for (const std::uint64_t piece : {1U, 1400U, 16384U, 1U << 20}) {
        HttpRateQueue queue;
        auto now = kStart;
        queue.Join(now);
        queue.SetRate(8'000'000, now);
        const std::uint64_t pieces = (4U << 20) / piece / (piece == 1 ? 64 : 1);
        for (std::uint64_t i = 0; i < pieces; ++i) {
            const std::uint64_t place = queue.Add(piece, now);
            now += queue.Remaining(place, now);
        }
        const double seconds = std::chrono::duration<double>(now - kStart).count();
        EXPECT_NEAR(seconds, static_cast<double>(pieces * piece) / 1e6, 0.005) << piece;
    }
}

TEST(RateQueue, AStallEarnsLittleIdleTimeNothingAndANewRateHoldsForWhatIsUnpaid) {
    HttpRateQueue queue;
    queue.Join(kStart);
    queue.SetRate(8'000, kStart);  // 1000 bytes a second
    EXPECT_EQ(queue.Remaining(queue.Add(1000, kStart), kStart), 1s);
    const std::uint64_t stalled = queue.Add(3000, kStart + 3600s);
    EXPECT_EQ(queue.Remaining(stalled, kStart + 3600s), 2700ms);
    auto now = kStart + 3601s + 700ms;
    queue.SetRate(4'000, now);
    EXPECT_EQ(queue.Remaining(stalled, now), 2s);
    now += queue.Remaining(stalled, now);
    queue.Leave(now);
    now += 200ms;
    queue.Join(now);
    EXPECT_EQ(queue.Remaining(queue.Add(500, now), now), 800ms) << "a short pause is a stall";
    now += 800ms;
    queue.Leave(now);
    now += 3600s;
    queue.Join(now);
    EXPECT_EQ(queue.Remaining(queue.Add(500, now), now), 1s);
    queue.SetRate(1, now);
    EXPECT_GT(queue.Remaining(queue.Add(UINT64_MAX / 2, now), now), 86400s) << "no overflow";
    queue.Clear(now);
    EXPECT_EQ(queue.Remaining(queue.Add(0, now), now), 0s);
}

TEST(RateQueue, ShareThatOneDoesNotUseGoesToTheOthersAndComesBackAtOnce) {
    HttpRateQueue queue;
    for (int i = 0; i < 2; ++i)
        queue.Join(kStart);
    queue.SetRate(8'000, kStart);  // each 1000 bytes a second
    EXPECT_EQ(queue.Remaining(queue.Add(1000, kStart), kStart), 500ms) << "the other one passes nothing";
    const std::uint64_t second = queue.Add(1000, kStart);
    EXPECT_EQ(queue.Remaining(second, kStart), 1s) << "both pass their share";
    queue.Add(5000, kStart);
    EXPECT_EQ(queue.Remaining(second, kStart), 1s) << "later pieces stand behind it";
}

TEST(RateQueue, AStallEarnsNoMoreCreditThanALimitOfBurstsLeaves) {
    HttpRateQueue queue;
    queue.Join(kStart);
    queue.SetRate(8'000, kStart);
    auto now = kStart + 3600s;
    EXPECT_EQ(queue.Remaining(queue.Add(1000, now, 1100), now), 900ms);
    now += 3600s;
    EXPECT_EQ(queue.Remaining(queue.Add(2000, now, 1500), now), 2s) << "larger than any burst may be";
}

TEST(ManagedTransmission, ASleepEndsWithItsWindowItsRateOrItsCaller) {
    FakeBandwidthManager manager;
    manager.rate = 1;  // kbit/s: a megabyte takes over two hours
    manager.closeAfterReads = 2;
    {
        HttpManagedTransmission transmission(manager);
        EXPECT_TRUE(transmission.Start() && transmission.Start());
        EXPECT_EQ(manager.running, 1);
        EXPECT_FALSE(transmission.Pass(1 << 20));
        transmission.End();
        EXPECT_EQ(manager.running, 0);
    }
    manager.refuse = true;
    EXPECT_FALSE(HttpManagedTransmission(manager).Start());
    EXPECT_EQ(manager.running, 0);
    manager.refuse = false;
    HttpManagedTransmission transmission(manager);
    ASSERT_TRUE(transmission.Start());

    manager.closeAfterReads = 0;
    int asked = 0;
    EXPECT_TRUE(transmission.PassAhead(1 << 20)) << "nothing is unpaid";
    EXPECT_FALSE(transmission.PassAhead(1, [&asked] { return ++asked > 2; }));
    asked = 0;
    EXPECT_FALSE(transmission.Pass(1 << 20, [&asked] { return ++asked > 1; }));
    asked = 0;
    EXPECT_TRUE(transmission.Pass(1 << 20, [&] {
        if (++asked == 2) manager.rate = 100'000'000;
        return asked > 50;
    }));
    manager.rate = 1;
    manager.limited = false;
    EXPECT_TRUE(transmission.Pass(1 << 20)) << "without a window nothing is paced";
}

TEST(ManagedTransmission, PiecesTakeATwentiethOfASecondOrAFrameButNeverMoreThanASecond) {
    for (const auto& [kilobits, pieceBytes] :
         {std::pair(1UL, 125U), {8UL, 1000U}, {80UL, 1400U}, {8'000UL, 50'000U}, {100'000'000UL, 262'144U}}) {
        FakeBandwidthManager manager;
        manager.rate = kilobits;
        HttpManagedTransmission transmission(manager);
        ASSERT_TRUE(transmission.Start());
        EXPECT_EQ(transmission.PieceBytes(), pieceBytes) << kilobits;
    }
}

TEST(PeerBandwidth, IsMeasuredAgainAtTheFrequenciesOfThePeerAndAfterAMinuteWhenItIsSilent) {
    FakeBandwidthManager manager;
    manager.bytesPerSecond = 1'000'000;
    manager.peerAnswers = false;
    HttpPeerBandwidth bandwidth;
    const IpAddress peer(0x0A000001);
    for (const auto& [at, answers, counts, probes, bits] :
         {std::tuple(0s, false, 1U, 0U, HttpPeerBandwidth::kAssumedBitsPerSecond),
          {59s, true, 1U, 0U, HttpPeerBandwidth::kAssumedBitsPerSecond},
          {60s, true, 2U, 1U, std::uint64_t{8'000'000}},
          {559s, true, 2U, 1U, std::uint64_t{8'000'000}},
          {560s, true, 3U, 2U, std::uint64_t{8'000'000}},
          {1060s, false, 4U, 3U, std::uint64_t{8'000'000}}}) {
        SCOPED_TRACE(at.count());
        manager.peerAnswers = answers;
        EXPECT_EQ(bandwidth.Measure(manager, peer, kStart + at).bitsPerSecond, bits);
        EXPECT_EQ(manager.counts.size(), counts);
        EXPECT_EQ(manager.probes.size(), probes);
    }
}

TEST(ManagedTransmission, RelativeRatesAreSharesOfTheProbedBandwidth) {
    using Manager = FakeBandwidthManager;
    // the bytes of a twentieth of a second at the expected rate, the probes, and what differs from half of a
    // probed bandwidth of 2 MB/s
    const std::tuple<const char*, std::size_t, std::size_t, void (*)(Manager&)> cases[] = {
        {"half", 50'000, 1, [](Manager&) {}},
        {"half among four", 12'500, 1, [](Manager& manager) { manager.clients = 4; }},
        {"no clients told", 50'000, 1, [](Manager& manager) { manager.clients = 0; }},
        {"per thousand", 5'000, 1, [](Manager& manager) { manager.perThousand = true; }},
        {"over the whole", 100'000, 1, [](Manager& manager) { manager.rate = 300; }},
        {"no probe offered", 31'250, 0, [](Manager& manager) { manager.port = 0; }},
        {"probe fails", 31'250, 1, [](Manager& manager) { manager.bytesPerSecond = 0; }},
        {"peer silent", 31'250, 0, [](Manager& manager) { manager.peerAnswers = false; }},
    };
    for (const auto& [name, pieceBytes, probes, change] : cases) {
        SCOPED_TRACE(name);
        Manager manager;
        manager.rate = 50;
        manager.bytesPerSecond = 2'000'000;
        change(manager);
        manager.percentage = !manager.perThousand;
        HttpManagedTransmission transmission(manager);
        transmission.SetPeer([] { return IpAddress(0x0A000001); });
        ASSERT_TRUE(transmission.Start());
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(transmission.Pass(10));
        EXPECT_EQ(transmission.PieceBytes(), pieceBytes);
        EXPECT_EQ(manager.probes, std::vector<std::string>(probes, "10.0.0.1:7000"));
        EXPECT_EQ(manager.counts, std::vector<bool>{true}) << "not asked again before its time";
        HttpManagedTransmission second(manager);
        second.SetPeer([] { return IpAddress(0x0A000001); });
        ASSERT_TRUE(second.Start());
        const std::size_t told = manager.peerAnswers ? std::max(manager.clients, 1U) : 1;
        EXPECT_EQ(second.PieceBytes(), pieceBytes * told / std::max<std::size_t>(told, 2)) << "both share it";
        EXPECT_EQ(manager.counts.size() + manager.probes.size(), 1 + probes) << "measured for both";
        HttpPeerBandwidth::Values values;
        EXPECT_TRUE(manager.peerBandwidth.GetLatest(values));
        EXPECT_EQ(values.isMeasured, manager.bytesPerSecond != 0 && probes != 0);
    }
}

TEST(SpeedWatch, GivesUpBelowTheLeastRateOverAWholeWindowOnly) {
    HttpSpeedWatch watch(kStart);
    EXPECT_FALSE(watch.IsTooSlow(kStart + 29s, false));
    watch.OnBytes(30'000);
    EXPECT_FALSE(watch.IsTooSlow(kStart + 30s, false));
    watch.OnBytes(29'999);
    EXPECT_FALSE(watch.IsTooSlow(kStart + 59s, false));
    EXPECT_TRUE(watch.IsTooSlow(kStart + 60s, false));

    HttpSpeedWatch paced(kStart);
    paced.OnBytes(1);
    EXPECT_FALSE(paced.IsTooSlow(kStart + 10s, true)) << "a paced exchange only has to move";
    EXPECT_FALSE(paced.IsTooSlow(kStart + 30s, false)) << "it was paced in this window";
    EXPECT_TRUE(paced.IsTooSlow(kStart + 60s, true));

    HttpSpeedWatch sent(kStart);
    sent.OnRequestSent(1'000'000'000, kStart);
    EXPECT_FALSE(sent.IsTooSlow(kStart + 129s, false)) << "the peer has time for its disk";
    EXPECT_TRUE(sent.IsTooSlow(kStart + 130s, false));
}

}  // namespace

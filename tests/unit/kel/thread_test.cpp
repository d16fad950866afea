#include "kel/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>

namespace {

constexpr std::uint64_t kForeverMs = UINT64_MAX;
constexpr std::uint64_t kLostMs = 60'000;  ///< so that a lost wake-up fails instead of hanging

class TestThread : public KelThread {
  public:
    explicit TestThread(std::function<void(TestThread&)> body) : body_(std::move(body)) {}
    ~TestThread() override { Cancel(0, true); }

  private:
    void ThreadMain() override { body_(*this); }
    std::function<void(TestThread&)> body_;
};

TEST(Thread, ASignalSentWhileItWorksEndsTheNextPause) {
    std::promise<void> signalled;
    bool woken = false, again = true;
    TestThread thread([&](TestThread& self) {
        signalled.get_future().wait();
        self.Sleep(1);  // leaves the signal alone
        woken = self.Pause(kLostMs);
        again = self.Pause(1);
    });
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(thread.Start()) << "it runs already";
    thread.Signal(7);
    thread.Signal(8);
    signalled.set_value();
    thread.Join();
    EXPECT_TRUE(woken);
    EXPECT_FALSE(again) << "several signals count as one";
}

TEST(Thread, NoWakeUpIsLost) {
    constexpr int kRounds = 2000;
    std::atomic<int> given = 0;
    int seen = 0;
    TestThread thread([&](TestThread& self) {
        while (seen < kRounds && self.Pause(kLostMs))
            seen = given;
    });
    ASSERT_TRUE(thread.Start());
    for (int i = 1; i <= kRounds; ++i) {
        given = i;
        thread.Signal(1);
    }
    thread.Join();
    EXPECT_EQ(seen, kRounds);
}

TEST(Thread, CancellationEndsEveryWait) {
    const std::function<void(TestThread&)> waits[] = {
        [](TestThread& self) { EXPECT_FALSE(self.Pause(kForeverMs)); },
        [](TestThread& self) { self.Sleep(kForeverMs); },
        [](TestThread& self) {
            while (!self.CheckCancelled(true)) {
            }
        }};
    for (const auto& wait : waits) {
        std::promise<void> started;
        TestThread thread([&](TestThread& self) {
            EXPECT_FALSE(self.CheckCancelled(false));
            started.set_value();
            wait(self);
            EXPECT_TRUE(self.CheckCancelled(false));
        });
        ASSERT_TRUE(thread.Start());
        started.get_future().wait();
        thread.Cancel(3, true);
    }
}

TEST(Thread, CanBeStartedAgainWithoutOldSignalsOrCancellation) {
    std::atomic<int> runs = 0;
    TestThread thread([&](TestThread& self) {
        EXPECT_FALSE(self.CheckCancelled(false) || self.Pause(1));
        if (++runs == 3) throw std::runtime_error("leaves the body");
    });
    for (int i = 0; i < 4; ++i) {
        thread.Cancel(1, true);  // idle: no effect
        thread.Signal(1);
        ASSERT_TRUE(thread.Start()) << "an ended thread needs no Join first";
        while (thread.IsThreadRunning())
            std::this_thread::yield();
    }
    EXPECT_EQ(runs, 4);
}

TEST(Thread, SeveralThreadsMayJoin) {
    std::promise<void> go;
    TestThread thread([gone = go.get_future().share()](TestThread&) { gone.wait(); });
    ASSERT_TRUE(thread.Start());
    std::thread other([&] { thread.Join(); });
    go.set_value();
    thread.Join();
    other.join();
}

}  // namespace

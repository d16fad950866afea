#include "kel/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>

#include "kel/periodic_thread.h"
#include "kept_log.h"

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
    std::thread other([&] { thread.Join(); });  // several may
    thread.Join();
    other.join();
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

using Begin = KelPeriodicThread::Begin;

class PeriodicThreadTest : public testing::Test {
  protected:
    PeriodicThreadTest() { log_.SetContext(lines_); }
    /// Runs a thread until it ends; it is at its step number `steps_` when `step` is called.
    void Run(Begin begin, const KelPeriodicThread::Step& step, const KelPeriodicThread::NextPause& pause) {
        steps_ = 0;
        trace_.clear();
        KelPeriodicThread thread(
            log_, begin, [&] { return ++steps_, trace_ += 's', step(); },
            [&](bool isWorkLeft) { return trace_ += isWorkLeft ? '1' : '0', pause(isWorkLeft); });
        thread_ = &thread;
        ASSERT_TRUE(thread.Start());
        thread.Join();
    }
    KelPeriodicThread::NextPause EndAfterStep(int last) {
        return [this, last](bool) { return steps_ == last ? std::nullopt : std::optional<std::uint64_t>(1); };
    }

    const std::shared_ptr<KeptLog> lines_ = std::make_shared<KeptLog>();
    KelDebug log_{"Test", "Test"};
    KelPeriodicThread* thread_ = nullptr;
    int steps_ = 0;
    KelString trace_;  ///< s: a step, 1 and 0: a pause, with whether work is left
};

TEST_F(PeriodicThreadTest, AlternatesStepsAndPausesFromItsBeginningOnUntilThePauseEndsIt) {
    const auto isNotSecond = [this] { return steps_ != 2; };
    for (const auto& [begin, trace] : {std::pair{Begin::WithStep, "s1s0s1"}, {Begin::WithPause, "1s1s0s1"}}) {
        Run(begin, isNotSecond, EndAfterStep(3));
        EXPECT_EQ(trace_, trace);
    }
}

TEST_F(PeriodicThreadTest, ASignalDuringAStepEndsTheNextPauseAndCancellationEndsTheThread) {
    const auto step = [this] {
        steps_ < 3 ? thread_->Signal(1) : thread_->Cancel(0, false);
        return false;
    };
    Run(Begin::WithStep, step, [](bool) { return kLostMs; });
    EXPECT_EQ(trace_, "s0s0s") << "a cancelled thread needs no further pause";
    Run(Begin::WithPause, step, [this](bool) { return thread_->Cancel(0, false), kLostMs; });
    EXPECT_EQ(trace_, "1") << "a cancelled pause needs no further step";
}

TEST_F(PeriodicThreadTest, LogsWhatAStepThrowsAndGoesOnAsWithWorkLeft) {
    const auto step = [this] {
        if (steps_ == 1) throw std::runtime_error("disk gone");
        if (steps_ == 2) throw 5;  // NOLINT(hicpp-exception-baseclass)
        return false;
    };
    Run(Begin::WithStep, step, EndAfterStep(3));
    EXPECT_EQ(trace_, "s1s1s0");
    EXPECT_EQ(lines_->Count(KelDebugLevel::Error, "step failed (disk gone)"), 1);
    EXPECT_EQ(lines_->TakeProblems().size(), 2U);
}

}  // namespace

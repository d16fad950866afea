#include "kel/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>

namespace {

constexpr std::uint64_t kForeverMs = UINT64_MAX;

class TestThread : public KelThread {
  public:
    explicit TestThread(std::function<void(TestThread&)> body) : body_(std::move(body)) {}
    ~TestThread() override { Cancel(0, true); }

  private:
    void ThreadMain() override { body_(*this); }
    std::function<void(TestThread&)> body_;
};

/// Lets a thread and its test meet; bounded, so that a lost wake-up fails instead of hanging.
class Gate {
  public:
    void Open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool Wait() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

TEST(Thread, ASignalSentWhileItWorksEndsTheNextPause) {
    Gate started, signalled, done;
    bool woken = false;
    bool second = true;
    TestThread thread([&](TestThread& self) {
        started.Open();
        signalled.Wait();
        self.Sleep(1);  // leaves the signal alone
        woken = self.Pause(kForeverMs);
        second = self.Pause(1);
        done.Open();
    });
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(thread.Start()) << "it runs already";
    ASSERT_TRUE(started.Wait());
    thread.Signal(7);
    thread.Signal(8);
    EXPECT_EQ(thread.LastSignal(), 8U);
    signalled.Open();
    ASSERT_TRUE(done.Wait());
    thread.Join();
    EXPECT_TRUE(woken);
    EXPECT_FALSE(second) << "several signals count as one";
}

TEST(Thread, NoWakeUpIsLost) {
    constexpr int kRounds = 2000;
    std::atomic<int> given = 0;
    std::atomic<int> seen = 0;
    Gate done;
    TestThread thread([&](TestThread& self) {
        while (seen < kRounds) {
            self.Pause(kForeverMs);
            seen = given.load();
        }
        done.Open();
    });
    ASSERT_TRUE(thread.Start());
    for (int i = 1; i <= kRounds; ++i) {
        given = i;
        thread.Signal(1);
    }
    EXPECT_TRUE(done.Wait());
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
        Gate started, done;
        TestThread thread([&](TestThread& self) {
            EXPECT_FALSE(self.CheckCancelled(false));
            started.Open();
            wait(self);
            EXPECT_TRUE(self.CheckCancelled(false));
            done.Open();
        });
        ASSERT_TRUE(thread.Start());
        ASSERT_TRUE(started.Wait());
        thread.Cancel(3, false);
        ASSERT_TRUE(done.Wait());
        EXPECT_EQ(thread.CancelReason(), 3U);
    }
}

TEST(Thread, CanBeStartedAgainWithoutOldSignalsOrCancellation) {
    std::atomic<int> runs = 0;
    std::atomic<bool> clean = true;
    TestThread thread([&](TestThread& self) {
        if (self.CheckCancelled(false) || self.Pause(1)) clean = false;
        if (++runs == 3) throw std::runtime_error("leaves the body");
    });
    thread.Cancel(1, true);  // idle: no effect
    for (int i = 0; i < 4; ++i) {
        thread.Signal(1);
        ASSERT_TRUE(thread.Start());
        EXPECT_TRUE(i < 2 || runs >= i);
        thread.Join();
        EXPECT_FALSE(thread.IsThreadRunning());
        thread.Cancel(1, true);
    }
    EXPECT_EQ(runs, 4);
    EXPECT_TRUE(clean);
}

TEST(Thread, JoinFromSeveralThreadsAndEndedButNotJoined) {
    Gate go;
    TestThread thread([&](TestThread&) { go.Wait(); });
    ASSERT_TRUE(thread.Start());
    std::thread other([&] { thread.Join(); });
    go.Open();
    thread.Join();
    other.join();
    ASSERT_TRUE(thread.Start());
    while (thread.IsThreadRunning())
        std::this_thread::yield();
    EXPECT_TRUE(thread.Start()) << "an ended thread needs no Join first";
}

}  // namespace

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "filestore/file_store_fixture.h"

namespace {

class CountingThread : public FileThreadBase {
  public:
    explicit CountingThread(int seconds) : FileThreadBase("FileStore", "TestGap", seconds) {}
    ~CountingThread() override {
        Cancel(0, false);
        Join();
    }
    std::atomic<int> steps = 0;

  protected:
    bool DoWork() override {
        if (++steps == 1) throw std::runtime_error("no space");
        return false;
    }
};

template <class Condition>
bool Becomes(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return condition();
}

using WorkerThread = FileStoreTest;

TEST_F(WorkerThread, WakesAtOnceAndOutlivesAFailedStep) {
    CountingThread thread(3600);
    thread.WakeUp();  // not running: no signal is kept
    ASSERT_TRUE(thread.Start());
    thread.WakeUp();
    EXPECT_TRUE(Becomes([&] { return thread.steps == 1; }));
    EXPECT_TRUE(Becomes([&] { return HasLogged(KelDebugLevel::Error, "no space"); }));
    thread.WakeUp();
    EXPECT_TRUE(Becomes([&] { return thread.steps == 2; }));
}

TEST_F(WorkerThread, CancelledPauseEndsItWithoutWork) {
    CountingThread thread(3600);
    ASSERT_TRUE(thread.Start());
    thread.Cancel(0, false);
    thread.Join();
    EXPECT_EQ(thread.steps, 0);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Thread stopped due to check cancelled."));
}

TEST_F(WorkerThread, SettingIsReadBeforeEveryPassAndZeroEndsTheThread) {
    CountingThread thread(3600);
    ASSERT_TRUE(thread.Start());
    thread.WakeUp();
    ASSERT_TRUE(Becomes([&] { return thread.steps == 1; }));
    SetIni("FileStore", "TestGap", "0");
    thread.WakeUp();
    EXPECT_TRUE(Becomes([&] { return !thread.IsThreadRunning(); }));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "Thread stopped due to SleepTime value equal to 0."));
}

}  // namespace

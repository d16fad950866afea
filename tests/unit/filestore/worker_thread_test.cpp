#include <semaphore>
#include <stdexcept>

#include "filestore/file_store_fixture.h"
#include "filestore/state/worker_loop.h"

namespace {

struct CountingThread : FileThreadBase {
    CountingThread() : FileThreadBase("FileStore", "TestGap", 3600) {}
    ~CountingThread() override {
        Cancel(0, false);
        Join();
    }
    std::counting_semaphore<> begun{0};  ///< released at the begin of every step
    int steps = 0;

    bool DoWork() override {
        begun.release();
        if (++steps == 1) throw std::runtime_error("no space");
        return false;
    }
};

using WorkerThread = FileStoreTest;

TEST_F(WorkerThread, WakesAtOnceOutlivesAFailedStepAndEndsWhenItsSettingIsZero) {
    CountingThread thread;
    thread.WakeUp();  // not running: no signal is kept
    ASSERT_TRUE(thread.Start());
    for (int step = 0; step < 2; ++step) {
        thread.WakeUp();
        thread.begun.acquire();
    }
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "no space"));
    SetIni("FileStore", "TestGap", "0");
    thread.WakeUp();
    thread.Join();  // returns when the thread has ended
}

TEST_F(WorkerThread, CancelledPauseEndsItWithoutWork) {
    CountingThread thread;
    ASSERT_TRUE(thread.Start());
    thread.Cancel(0, false);
    thread.Join();
    EXPECT_EQ(thread.steps, 0);
}

}  // namespace

#include "agent/stop_signals.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

namespace {

void SendToThisProcess(int signal) {
    kill(getpid(), signal);
}

/// Two signals, the second after `pause`; exits with 0 when it was heard and did not end the process.
void StopTwice(std::chrono::milliseconds pause) {
    const KelDebug log("Test", "Test");  // without a context, warnings go to stderr
    StopSignals stop([] {}, log);
    SendToThisProcess(SIGTERM);
    stop.Wait();
    std::this_thread::sleep_for(pause);
    SendToThisProcess(SIGINT);
    sigset_t pending;
    do
        sigpending(&pending);
    while (sigismember(&pending, SIGINT) == 1);
    std::this_thread::sleep_for(StopSignals::kSameStop / 2);
    std::_Exit(EXIT_SUCCESS);
}

TEST(StopSignalsDeathTest, ASecondSignalEndsTheProcessUnlessItIsTheSameStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StopTwice(std::chrono::milliseconds(0)), testing::ExitedWithCode(EXIT_SUCCESS), "");
    EXPECT_EXIT(StopTwice(StopSignals::kSameStop), testing::ExitedWithCode(EXIT_FAILURE), "second signal");
}

}  // namespace

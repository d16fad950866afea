#include "agent/stop_signals.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

namespace {

/// Two signals together, as for the process and its group, and one later than a stop takes to come twice;
/// exits with 0 when that was not heard.
void StopTwice() {
    const KelDebug log("Test", "Test");  // without a context, warnings go to stderr
    StopSignals stop([] {}, log);
    for (const int number : {SIGTERM, SIGINT})
        kill(getpid(), number);
    stop.Wait();
    std::this_thread::sleep_for(StopSignals::kSameStop);
    std::fputs("stopping;", stderr);
    kill(getpid(), SIGINT);
    std::this_thread::sleep_for(std::chrono::seconds(StopSignals::kStopSeconds - 1));
    std::_Exit(EXIT_SUCCESS);
}

TEST(StopSignalsDeathTest, ALaterSignalEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StopTwice(), testing::ExitedWithCode(EXIT_FAILURE), "^stopping;.*second signal");
}

}  // namespace

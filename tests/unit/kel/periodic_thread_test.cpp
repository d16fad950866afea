#include "kel/periodic_thread.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "kept_log.h"

namespace {

using Begin = KelPeriodicThread::Begin;

constexpr std::uint64_t kLostMs = 60'000;  ///< so that a lost wake-up fails instead of hanging

class PeriodicThreadTest : public testing::Test {
  protected:
    PeriodicThreadTest() { log_.SetContext(lines_); }
    /// Runs a thread until it ends; it is at its step number `steps_` when `step` is called.
    void Run(Begin begin, const KelPeriodicThread::Step& step, const KelPeriodicThread::NextPause& pause) {
        steps_ = 0;
        trace_.clear();
        KelPeriodicThread thread(
            log_, begin,
            [&] {
                ++steps_;
                trace_ += 's';
                return step();
            },
            [&](bool isWorkLeft) {
                trace_ += isWorkLeft ? '1' : '0';
                return pause(isWorkLeft);
            });
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
    for (const auto& [begin, expected] :
         {std::pair{Begin::WithStep, "s1s0s1"}, std::pair{Begin::WithPause, "1s1s0s1"}}) {
        Run(
            begin, [this] { return steps_ != 2; }, EndAfterStep(3));
        EXPECT_EQ(trace_, expected);
    }
}

TEST_F(PeriodicThreadTest, ASignalDuringAStepEndsTheNextPauseAndCancellationEndsTheThread) {
    const auto step = [this] {
        steps_ < 3 ? thread_->Signal(1) : thread_->Cancel(0, false);
        return false;
    };
    Run(Begin::WithStep, step, [](bool) { return kLostMs; });
    EXPECT_EQ(trace_, "s0s0s") << "a cancelled thread needs no further pause";
}

TEST_F(PeriodicThreadTest, CancellationEndsAPauseWithoutAnotherStep) {
    const auto pause = [this](bool) { return thread_->Cancel(0, false), kLostMs; };
    Run(
        Begin::WithPause, [] { return true; }, pause);
    EXPECT_EQ(trace_, "1");
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

#include "kel/periodic_thread.h"

#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>

namespace {

using Begin = KelPeriodicThread::Begin;

constexpr std::uint64_t kLostMs = 60'000;  ///< so that a lost wake-up fails instead of hanging

class LinesOfLog : public KelDebugContext {
  public:
    void Write(KelDebugLevel level, const KelString& module, const KelString& line) override {
        const std::lock_guard lock(mutex_);
        if (level == KelDebugLevel::Error) errors_.push_back(module + ": " + line);
    }
    KelDebugLevel Level() const override { return KelDebugLevel::Error; }

    KelVector<KelString> Errors() {
        const std::lock_guard lock(mutex_);
        return errors_;
    }

  private:
    std::mutex mutex_;
    KelVector<KelString> errors_;
};

TEST(PeriodicThread, AlternatesStepsAndPausesFromItsBeginningOnUntilThePauseEndsIt) {
    struct Case {
        Begin begin;
        KelString expected;  ///< s: a step, 1 and 0: a pause, with what it is told of work left
    };
    for (const Case& each : {Case{Begin::WithStep, "s1s0s1"}, Case{Begin::WithPause, "1s1s0s1"}}) {
        const KelDebug log("Test", "Test");
        KelString trace;
        int steps = 0;
        KelPeriodicThread thread(
            log, each.begin,
            [&] {
                trace += 's';
                return ++steps != 2;
            },
            [&](bool isWorkLeft) -> std::optional<std::uint64_t> {
                trace += isWorkLeft ? '1' : '0';
                if (steps == 3) return std::nullopt;
                return 1;
            });
        ASSERT_TRUE(thread.Start());
        thread.Join();
        EXPECT_EQ(trace, each.expected);
    }
}

TEST(PeriodicThread, ASignalDuringAStepEndsTheNextPauseAndCancellationEndsTheThread) {
    const KelDebug log("Test", "Test");
    int steps = 0, pauses = 0;
    KelPeriodicThread thread(
        log, Begin::WithStep,
        [&] {
            ++steps;
            if (steps < 3) thread.Signal(1);
            if (steps == 3) thread.Cancel(0, false);
            return false;
        },
        [&](bool) {
            ++pauses;
            return kLostMs;
        });
    ASSERT_TRUE(thread.Start());
    thread.Join();
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(pauses, 2) << "a cancelled thread needs no further pause";
}

TEST(PeriodicThread, CancellationEndsAPauseWithoutAnotherStep) {
    const KelDebug log("Test", "Test");
    int steps = 0;
    KelPeriodicThread thread(
        log, Begin::WithPause, [&] { return ++steps > 0; },
        [&](bool) {
            thread.Cancel(0, false);
            return kLostMs;
        });
    ASSERT_TRUE(thread.Start());
    thread.Join();
    EXPECT_EQ(steps, 0);
}

TEST(PeriodicThread, LogsWhatAStepThrowsAndGoesOnAsWithWorkLeft) {
    const auto lines = std::make_shared<LinesOfLog>();
    KelDebug log("Test", "Test");
    log.SetContext(lines);
    KelString trace;
    int steps = 0;
    KelPeriodicThread thread(
        log, Begin::WithStep,
        [&]() -> bool {
            ++steps;
            if (steps == 1) throw std::runtime_error("disk gone");
            if (steps == 2) throw 5;  // NOLINT(hicpp-exception-baseclass)
            return false;
        },
        [&](bool isWorkLeft) -> std::optional<std::uint64_t> {
            trace += isWorkLeft ? '1' : '0';
            if (steps == 3) return std::nullopt;
            return 1;
        });
    ASSERT_TRUE(thread.Start());
    thread.Join();
    EXPECT_EQ(trace, "110");
    const auto errors = lines->Errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0],
              "Test: A work step failed (disk gone); the thread goes on and tries again after its wait.");
}

}  // namespace

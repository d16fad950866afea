#include "kelcore/failure_log.h"

#include <gtest/gtest.h>

#include "kelcore/database_fixture.h"
#include "kept_log.h"

namespace {

using namespace std::chrono_literals;

TEST(FailureLog, BeginningReminderAndEndAreLoggedAndNothingBetween) {
    KelDebug log("M", "m");
    const auto kept = std::make_shared<KeptLog>();
    log.SetContext(kept);
    KelFailureLog failures(log);
    const KelFailureLog::Clock::time_point begin;
    const auto fail = [&](const char* key, const char* line, auto after) {
        return failures.Failed(KelDebugLevel::Error, key, line, begin + after);
    };
    EXPECT_TRUE(fail("disk", "f1 failed", 0s));
    EXPECT_FALSE(fail("disk", "f2 failed", 1s));
    EXPECT_TRUE(fail("peer", "p failed", 1s));
    EXPECT_FALSE(fail("disk", "f1 failed", 3599s));
    EXPECT_TRUE(fail("disk", "f3 failed", 3600s));
    EXPECT_FALSE(fail("disk", "f4 failed", 3601s));
    failures.Succeeded("disk", "the disk works again", begin + 3h);
    EXPECT_EQ(kept->Count(KelDebugLevel::Print, "the disk works again, after 5 failures in 3 hours"), 1);
    EXPECT_FALSE(fail("disk", "f5 failed", 3h + 1s)) << "it comes and goes";
    EXPECT_TRUE(failures.IsFailing("disk"));
    failures.Succeeded("disk", "the disk works again", begin + 3h + 2s);
    EXPECT_FALSE(failures.IsFailing("disk"));
    failures.Succeeded("never failed", "the disk works again", begin + 4h);
    EXPECT_EQ(kept->Count(KelDebugLevel::Print, "works again"), 1);
    EXPECT_TRUE(fail("disk", "f6 failed", 4h));
    EXPECT_EQ(kept->TakeProblems(), (KelVector<KelString>{"f1 failed", "p failed",
                                                          "f3 failed (4 times in 60 minutes)", "f6 failed"}));
}

TEST_F(OpenDatabaseTest, AFullDiskIsLoggedOnceUntilSomethingIsStoredAgain) {
    ASSERT_TRUE(Run("CREATE TABLE T (X TEXT)"));
    ASSERT_TRUE(Run("INSERT INTO T VALUES ('kept')"));
    const auto fill = [this] { return Run("INSERT INTO T VALUES (zeroblob(100000))"); };
    Run("PRAGMA max_page_count = 3");
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(fill());
    for (const char* change : {"X = 'absent'", "X = 'kept'"})  // neither puts anything on the disk
        EXPECT_TRUE(Run(KelString("UPDATE T SET X = 'kept' WHERE ") + change));
    EXPECT_EQ(kept_->Count(KelDebugLevel::Print, "can be written again"), 0);
    EXPECT_EQ(kept_->TakeProblems().size(), 2U);
    Run("PRAGMA max_page_count = 1000");
    EXPECT_TRUE(fill());
    EXPECT_EQ(kept_->Count(KelDebugLevel::Print, "can be written again, after 3 failures"), 1);
}

}  // namespace

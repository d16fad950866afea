#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

#include "database_fixture.h"
#include "kel/text.h"

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// Writes pairs of rows for ever, each pair in one transaction, and reports every committed one.
[[noreturn]] void WritePairs(DBConnection& db, int report) {
    const KelString filler(3000, 'f');
    for (;;) {
        const bool written =
            db.BeginTransaction() && db.Query("INSERT INTO A VALUES (NULL, '" + filler + "')") &&
            db.Query("INSERT INTO B VALUES (NULL, '" + filler + "')") && db.CommitTransaction();
        if (!written || write(report, "c", 1) != 1) _exit(1);
    }
}

/// Counts reports until `count` have come, then kills the child and counts the rest.
std::int64_t KillAfter(pid_t child, int report, std::int64_t count) {
    std::int64_t committed = 0;
    char byte = 0;
    while (read(report, &byte, 1) == 1)
        if (++committed == count) kill(child, SIGKILL);
    int state = 0;
    EXPECT_EQ(waitpid(child, &state, 0), child);
    EXPECT_TRUE(WIFSIGNALED(state));
    return committed;
}

TEST_F(DatabaseTest, AKilledProcessLosesNoCommittedRowAndLeavesNoHalfTransaction) {
    ASSERT_TRUE(Open() && Run("CREATE TABLE A (Id INTEGER PRIMARY KEY, Text TEXT)") &&
                Run("CREATE TABLE B (Id INTEGER PRIMARY KEY, Text TEXT)"));
    std::int64_t committed = 0;
    for (int round = 0; round < 8; ++round) {
        db_.reset();
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            if (!Open()) _exit(1);
            WritePairs(*db_, ends[1]);
        }
        close(ends[1]);
        committed += KillAfter(child, ends[0], 5 + round * 7);
        close(ends[0]);
        ASSERT_TRUE(FileExists(path_ + "-wal"));

        ASSERT_TRUE(Open());
        const std::int64_t rows = ParseInt64(Value("SELECT count(*) FROM A")).value_or(-1);
        EXPECT_EQ(Value("SELECT count(*) FROM B"), std::to_string(rows));
        EXPECT_GE(rows, committed);
        EXPECT_LE(rows, committed + 1) << "at most one commit was not reported";
        EXPECT_EQ(Value("PRAGMA integrity_check"), "ok");
        committed = rows;
    }
    EXPECT_TRUE(kept_->TakeProblems().empty());
}

/// A database of some pages, closed cleanly, that a test damages.
class DamagedDatabaseTest : public DatabaseTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Open() && Run("CREATE TABLE T (Id INTEGER PRIMARY KEY, Text TEXT)"));
        for (int i = 0; i < 20; ++i)
            ASSERT_TRUE(Run("INSERT INTO T VALUES (NULL, '" + KelString(3000, 't') + "')"));
        db_.reset();
    }
    void ReplaceByAnEmptyOne(std::size_t damageOffset, bool uncleanStop) {
        KelString bytes = TempFolder::Read(path_);
        TempFolder::Write(path_, bytes.replace(damageOffset, 4096, KelString(4096, '\x5A')));
        if (uncleanStop) TempFolder::Write(path_ + "-wal", "left behind");
        ASSERT_TRUE(Open());
        EXPECT_TRUE(db_->GetTablesList().empty());
        EXPECT_TRUE(Run("CREATE TABLE T (X INT)"));
        db_.reset();

        const KelVector<KelString> names = DirList(folder_.Path());
        ASSERT_GE(names.size(), 2u);
        EXPECT_EQ(names[0], "test.sqlite");
        EXPECT_THAT(std::vector(names.begin() + 1, names.end()), Each(StartsWith("test.sqlite.damaged-")));
        EXPECT_EQ(FileExists(folder_ / names[1] + "-wal"), uncleanStop);
        EXPECT_TRUE(TempFolder::Read(folder_ / names[1]) == bytes);
        EXPECT_THAT(kept_->TakeProblems(), ElementsAre(AllOf(HasSubstr(path_), HasSubstr(names[1]))));
        EXPECT_TRUE(Open()) << "the new database is sound";
    }
};

TEST_F(DamagedDatabaseTest, IsMovedAsideWhenItsHeaderIsBroken) {
    ReplaceByAnEmptyOne(0, false);
}

TEST_F(DamagedDatabaseTest, IsMovedAsideWithItsLogAfterAnUncleanStop) {
    ReplaceByAnEmptyOne(0, true);
}

TEST_F(DamagedDatabaseTest, IsMovedAsideForAnInnerPage) {
    ReplaceByAnEmptyOne(8192, true);
}

TEST_F(DamagedDatabaseTest, ALeftLogAloneIsNoDamage) {
    TempFolder::Write(path_ + "-wal", KelString(5000, 'x'));
    ASSERT_TRUE(Open());
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "20");
    EXPECT_TRUE(kept_->TakeProblems().empty());
}

}  // namespace

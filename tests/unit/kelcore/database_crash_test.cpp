#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <thread>

#include "database_fixture.h"
#include "kel/text.h"

using testing::Each;
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

void Overwrite(const KelString& path, std::int64_t offset, const KelString& bytes) {
    std::FILE* file = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fseek(file, static_cast<long>(offset), SEEK_SET), 0);
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    EXPECT_EQ(std::fclose(file), 0);
}

TEST_F(DatabaseTest, AKilledProcessLosesNoCommittedRowAndLeavesNoHalfTransaction) {
    {
        const auto db = Open();
        ASSERT_TRUE(db && db->Query("CREATE TABLE A (Id INTEGER PRIMARY KEY, Text TEXT)") &&
                    db->Query("CREATE TABLE B (Id INTEGER PRIMARY KEY, Text TEXT)"));
    }
    std::int64_t committed = 0;
    for (int round = 0; round < 8; ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            const auto db = Open();
            if (!db) _exit(1);
            WritePairs(*db, ends[1]);
        }
        close(ends[1]);
        committed += KillAfter(child, ends[0], 5 + round * 7);
        close(ends[0]);
        ASSERT_TRUE(FileExists(path_ + "-wal"));

        const auto db = Open();
        ASSERT_TRUE(db);
        const std::int64_t rows = ParseInt64(Value(*db, "SELECT count(*) FROM A")).value_or(-1);
        EXPECT_EQ(Value(*db, "SELECT count(*) FROM B"), std::to_string(rows));
        EXPECT_GE(rows, committed);
        EXPECT_LE(rows, committed + 1) << "at most one commit was not reported";
        EXPECT_EQ(Value(*db, "PRAGMA integrity_check"), "ok");
        committed = rows;
    }
    EXPECT_TRUE(captured_->Take().empty());
}

/// A database of some pages, closed cleanly.
void MakeDatabase(DBConnection& db) {
    ASSERT_TRUE(db.Query("CREATE TABLE T (Id INTEGER PRIMARY KEY, Text TEXT)"));
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(db.Query("INSERT INTO T VALUES (NULL, '" + KelString(3000, 't') + "')"));
}

struct Damage {
    const char* name;
    std::int64_t offset;
    bool uncleanStop;
};

class DamagedDatabaseTest : public DatabaseTest, public testing::WithParamInterface<Damage> {};

TEST_P(DamagedDatabaseTest, IsMovedAsideWithItsLogAndReplaced) {
    MakeDatabase(*Open());
    Overwrite(path_, GetParam().offset, KelString(4096, '\x5A'));
    const KelString damagedBytes = *FileReadText(path_, 1 << 20);
    if (GetParam().uncleanStop) {
        ASSERT_TRUE(FileWriteText(path_ + "-wal", "left behind"));
    }

    auto db = Open();
    ASSERT_TRUE(db);
    EXPECT_TRUE(db->GetTablesList().empty());
    EXPECT_TRUE(db->Query("CREATE TABLE T (X INT)"));
    db.reset();

    const KelVector<KelString> names = DirList(folder_);
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(names[0], "test.sqlite");
    EXPECT_THAT(std::vector(names.begin() + 1, names.end()), Each(StartsWith("test.sqlite.damaged-")));
    EXPECT_EQ(FileExists(folder_ + "/" + names[1] + "-wal"), GetParam().uncleanStop);
    EXPECT_TRUE(*FileReadText(folder_ + "/" + names[1], 1 << 20) == damagedBytes);
    const KelVector<KelString> lines = captured_->Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr(path_ + " is damaged"));
    EXPECT_THAT(lines[0], HasSubstr(names[1]));
    EXPECT_TRUE(Open()) << "the new database is sound";
}

INSTANTIATE_TEST_SUITE_P(Places, DamagedDatabaseTest,
                         testing::Values(Damage{"Header", 0, false},
                                         Damage{"HeaderAfterUncleanStop", 0, true},
                                         Damage{"InnerPage", 8192, true}),
                         [](const auto& one) { return KelString(one.param.name); });

TEST_F(DatabaseTest, ALeftLogAloneIsNoDamage) {
    MakeDatabase(*Open());
    ASSERT_TRUE(FileWriteText(path_ + "-wal", KelString(5000, 'x')));
    const auto db = Open();
    ASSERT_TRUE(db);
    EXPECT_EQ(Value(*db, "SELECT count(*) FROM T"), "20");
    EXPECT_TRUE(captured_->Take().empty());
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "database_fixture.h"
#include "kelcore/db/sequence_manager.h"
#include "on_threads.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST_F(OpenDatabaseTest, RunsExactlyOneStatement) {
    ASSERT_TRUE(Run("CREATE TABLE T (FieldName TEXT, FieldValue TEXT)"));
    for (const char* statement : {"INSERT INTO T VALUES ('a', '0')", "SELECT * FROM T ; \r\n\t; ", "vacuum",
                                  "UPDATE T SET FieldValue='1'WHERE FieldName='a'"})
        EXPECT_TRUE(Run(statement)) << statement;
    EXPECT_TRUE(kept_->TakeProblems().empty());
    for (const KelString& statement :
         KelVector<KelString>{"", " ;", "SELECT 1 FROM Missing", "INSERT INTO T VALUES ('d', '0'); x",
                              "INSERT INTO T VALUES ('b', '0'); INSERT INTO T VALUES ('c', '0')",
                              KelString("INSERT INTO T VALUES ('e', '0')\0 ", 33)}) {
        EXPECT_FALSE(Run(statement)) << statement;
        EXPECT_EQ(kept_->TakeProblems().size(), 1u) << statement;
    }
    EXPECT_EQ(Value("SELECT group_concat(FieldName || FieldValue) FROM T"), "a1")
        << "a refused text must not have run in part";
}

TEST_F(OpenDatabaseTest, CompiledStatementsTakeTheValuesOfEachRun) {
    ASSERT_TRUE(Run("CREATE TABLE T (X INTEGER PRIMARY KEY, Y TEXT)"));
    const KelString insert = "INSERT INTO T VALUES (?, ?)",
                    select = "SELECT count(*), max(Y) FROM T WHERE X < ?";
    const auto add = [&](std::int64_t number, const KelString& text) {
        const DBValue values[] = {number, text};
        return db_->Query(insert, values) != nullptr;
    };
    EXPECT_TRUE(add(1, "it's ?"));
    EXPECT_FALSE(add(1, "again")) << "a failure";
    EXPECT_TRUE(add(2, ""));
    const DBValue limit[] = {std::int64_t{2}};
    EXPECT_EQ(db_->Query(select, limit)->GetString(0, std::size_t{1}), "it's ?");
    EXPECT_FALSE(db_->Query(insert, limit)) << "too few values";
    EXPECT_TRUE(Run("VACUUM") && Run("ALTER TABLE T ADD COLUMN Z TEXT")) << "nothing is left open";
    EXPECT_FALSE(add(3, "x")) << "one column is missing now";
    EXPECT_EQ(db_->Query(select, limit)->GetInt64(0, std::size_t{0}), 1);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(db_->Query(KelFormat("SELECT %d WHERE 0 < ?", i), limit)) << "more than are kept";
    EXPECT_EQ(db_->Query(select, limit)->GetInt64(0, std::size_t{0}), 1);
    ASSERT_TRUE(Open()) << "they do not keep the file open";
}

TEST_F(OpenDatabaseTest, ReadsValuesAsTheyWereStored) {
    const auto row = db_->Query(
        "SELECT NULL AS Missing, 9223372036854775807 AS Largest, -5 AS Negative, 4294967295 AS Wide, "
        "4294967296 AS TooWide, 'x1' AS Word, CAST(x'610062' AS TEXT) AS Zero, '\xE2\x82\xAC''\xFF' AS Raw");
    ASSERT_TRUE(row);
    for (const auto& [column, wide, narrow] :
         std::initializer_list<std::tuple<const char*, std::int64_t, unsigned>>{
             {"Missing", 0, 0},
             {"LARGEST", INT64_MAX, 0},
             {"negative", -5, 0},
             {"Wide", UINT32_MAX, UINT32_MAX},
             {"TooWide", 4294967296, 0},
             {"Word", 0, 0},
             {"Absent", 0, 0}}) {
        EXPECT_EQ(row->GetInt64(0, column), wide) << column;
        EXPECT_EQ(row->GetUint32(0, column), narrow) << column;
        EXPECT_EQ(row->GetBool(0, column), wide != 0) << column;
    }
    EXPECT_EQ(row->GetString(0, "Zero"), KelString("a\0b", 3));
    EXPECT_EQ(row->GetString(0, "Raw"), "\xE2\x82\xAC'\xFF");
    EXPECT_EQ(row->GetString(0, "Missing") + row->GetString(0, "Absent") + row->GetString(1, "Word"), "");
}

TEST_F(OpenDatabaseTest, IsDurableAndDefensive) {
    EXPECT_EQ(Value("PRAGMA journal_mode") + Value("PRAGMA synchronous") + Value("PRAGMA trusted_schema") +
                  Value("PRAGMA mmap_size"),
              "wal200");
    db_->Query("PRAGMA writable_schema=ON");
    EXPECT_FALSE(Run("DELETE FROM sqlite_master"));
}

TEST_F(DatabaseTest, FilesBelongToTheirOwnerAndACleanCloseLeavesOne) {
    ASSERT_TRUE(FileWriteText(path_, "", 0644));
    ASSERT_TRUE(Open() && Run("CREATE TABLE T (X INT)"));
    for (const KelString& file : {path_, path_ + "-wal"})
        EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600)) << file;
    EXPECT_GT(FileGetSize64(path_ + "-wal"), 0);
    EXPECT_TRUE(db_->Flush());
    EXPECT_EQ(FileGetSize64(path_ + "-wal"), 0);
    db_.reset();
    EXPECT_THAT(DirList(folder_.Path()), ElementsAre("test.sqlite"));
    ASSERT_TRUE(Open());
    EXPECT_THAT(db_->GetTablesList(), ElementsAre("T"));
}

TEST_F(OpenDatabaseTest, WhatCannotBeOpenedIsRefusedAndLeftAloneAndAFileHasOneConnection) {
    ASSERT_EQ(symlink(folder_.Path().c_str(), (folder_ / "link").c_str()), 0);
    for (const KelString& path : {path_, folder_ / "./test.sqlite", folder_ / "link/test.sqlite", KelString(),
                                  folder_.Path(), folder_ / "missing/x.sqlite"}) {
        EXPECT_FALSE(OpenPath(path)) << path;
        EXPECT_EQ(kept_->TakeProblems().size(), 1u) << path;
    }
    EXPECT_FALSE(OpenPath(folder_ / "other.sqlite", "OTHER"));
    EXPECT_FALSE(FileExists(folder_ / "other.sqlite"));
    EXPECT_TRUE(OpenPath(folder_ / "other.sqlite"));
    EXPECT_TRUE(Open()) << "once the first has closed";
}

TEST_F(OpenDatabaseTest, TransactionsTakeEffectWholeOrNotAtAll) {
    ASSERT_TRUE(Run("CREATE TABLE T (X INT PRIMARY KEY)"));
    {
        DBTransaction transaction(*db_);
        EXPECT_TRUE(Run("INSERT INTO T VALUES (1)"));
    }
    {
        DBTransaction outer(*db_), inner(*db_);
        EXPECT_FALSE(inner.IsOpen() || inner.Commit());
        EXPECT_TRUE(Run("INSERT INTO T VALUES (2)"));
        EXPECT_TRUE(outer.Commit());
    }
    {
        DBTransaction transaction(*db_);
        EXPECT_FALSE(Run("INSERT OR ROLLBACK INTO T VALUES (2)"));
        EXPECT_FALSE(Run("INSERT INTO T VALUES (3)")) << "the failure has ended the transaction";
        EXPECT_TRUE(Run("SELECT * FROM T"));
        EXPECT_FALSE(transaction.Commit());
    }
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "2");
    EXPECT_TRUE(Run("INSERT INTO T VALUES (5)"));
}

TEST_F(OpenDatabaseTest, IdentifiersAreNeverGivenTwiceAndThreadsShareAConnection) {
    ASSERT_TRUE(Run("CREATE TABLE A (Id INTEGER PRIMARY KEY)") && Run("CREATE TABLE B (Id INTEGER)") &&
                Run("INSERT INTO B VALUES (41), (7)"));
    DBSequenceManager sequence;
    EXPECT_EQ(sequence.GetId("A", "Id"), 0u);
    sequence.SetConnection(db_.get());
    EXPECT_EQ(sequence.GetId("B", "Id"), 42u);
    ASSERT_TRUE(Run("DELETE FROM B"));
    EXPECT_EQ(sequence.GetId("B", "Id"), 43u);
    EXPECT_EQ(sequence.GetId("Missing", "Id"), 0u);
    OnThreads(4, [&](int) {
        for (int i = 0; i < 25; ++i) {
            EXPECT_TRUE(Run(KelFormat("INSERT INTO A VALUES (%gu)", sequence.GetId("A", "Id"))));
            EXPECT_TRUE(Run("SELECT * FROM A"));
        }
    });
    EXPECT_EQ(Value("SELECT count(*) || ' ' || max(Id) FROM A"), "100 100");
    ASSERT_TRUE(Run("INSERT INTO B VALUES (9223372036854775807)"));
    sequence.SetConnection(db_.get());
    EXPECT_EQ(sequence.GetId("B", "Id"), 0u);
}

TEST_F(OpenDatabaseTest, ADamagedFileIsMovedAsideWithItsLogAndReplacedByAnEmptyOne) {
    ASSERT_TRUE(Run("CREATE TABLE T (Id INTEGER PRIMARY KEY, Text TEXT)"));
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(Run("INSERT INTO T VALUES (NULL, '" + KelString(3000, 't') + "')"));
    db_.reset();
    const KelString sound = TempFolder::Read(path_);
    const std::tuple<const char*, std::size_t, bool> cases[] = {{"header", 0, false},
                                                                {"header, unclean stop", 0, true},
                                                                {"inner page", 8192, false},
                                                                {"inner page, unclean stop", 8192, true}};
    for (const auto& [name, offset, uncleanStop] : cases) {
        SCOPED_TRACE(name);
        KelString bytes = sound;
        TempFolder::Write(path_, bytes.replace(offset, 4096, KelString(4096, '\x5A')));
        if (uncleanStop) TempFolder::Write(path_ + "-wal", "left behind");
        ASSERT_TRUE(Open());
        EXPECT_TRUE(db_->GetTablesList().empty());
        EXPECT_TRUE(Run("CREATE TABLE T (X INT)"));
        db_.reset();

        const KelVector<KelString> names = DirList(folder_.Path());
        ASSERT_GE(names.size(), 2u);
        EXPECT_EQ(names[0], "test.sqlite");
        EXPECT_THAT(names[1], StartsWith("test.sqlite.damaged-"));
        EXPECT_TRUE(!uncleanStop || FileExists(folder_ / names[1] + "-wal"));
        EXPECT_TRUE(TempFolder::Read(folder_ / names[1]) == bytes);
        EXPECT_THAT(kept_->TakeProblems(), ElementsAre(AllOf(HasSubstr(path_), HasSubstr(names[1]))));
        EXPECT_TRUE(Open()) << "the new database is sound";
        db_.reset();
        for (std::size_t i = 1; i < names.size(); ++i)
            EXPECT_TRUE(FileDelete(folder_ / names[i]));
    }
    TempFolder::Write(path_, sound);
    TempFolder::Write(path_ + "-wal", KelString(5000, 'x'));
    ASSERT_TRUE(Open());
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "20") << "a left log alone is no damage";
    EXPECT_TRUE(kept_->TakeProblems().empty());
}

}  // namespace

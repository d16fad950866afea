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
    const std::pair<KelString, bool> cases[] = {
        {"INSERT INTO T VALUES ('a', '0')", true},
        {"UPDATE T SET FieldValue='1'WHERE FieldName='a'", true},
        {"SELECT * FROM T;", true},
        {"SELECT * FROM T ; \r\n\t; ", true},
        {"vacuum", true},
        {"", false},
        {" ;", false},
        {"SELECT 1 FROM Missing", false},
        {"INSERT INTO T VALUES ('b', '0'); INSERT INTO T VALUES ('c', '0')", false},
        {"INSERT INTO T VALUES ('d', '0'); x", false},
        {KelString("INSERT INTO T VALUES ('e', '0')\0 ", 33), false},
    };
    for (const auto& [statement, runs] : cases) {
        EXPECT_EQ(Run(statement), runs) << statement;
        EXPECT_EQ(kept_->TakeProblems().size(), runs ? 0u : 1u) << statement;
    }
    EXPECT_EQ(Value("SELECT group_concat(FieldName || FieldValue) FROM T"), "a1")
        << "a refused text must not have run in part";
}

TEST_F(OpenDatabaseTest, ReadsValuesAsTheyWereStored) {
    const auto row = db_->Query(
        "SELECT NULL AS Missing, 9223372036854775807 AS Largest, -5 AS Negative, 4294967295 AS Wide, "
        "4294967296 AS TooWide, 'x1' AS Word, CAST(x'610062' AS TEXT) AS Zero, '\xE2\x82\xAC''\xFF' AS Raw");
    ASSERT_TRUE(row);
    const std::tuple<const char*, std::int64_t, std::uint32_t> numbers[] = {
        {"Missing", 0, 0},
        {"LARGEST", 9223372036854775807, 0},
        {"negative", -5, 0},
        {"Wide", 4294967295, 4294967295},
        {"TooWide", 4294967296, 0},
        {"Word", 0, 0},
        {"Absent", 0, 0}};
    for (const auto& [column, wide, narrow] : numbers) {
        EXPECT_EQ(row->GetInt64(0, column), wide) << column;
        EXPECT_EQ(row->GetUint32(0, column), narrow) << column;
        EXPECT_EQ(row->GetBool(0, column), wide != 0) << column;
    }
    EXPECT_EQ(row->GetString(0, "Zero"), KelString("a\0b", 3));
    EXPECT_EQ(row->GetString(0, "Raw"), "\xE2\x82\xAC'\xFF");
    EXPECT_EQ(row->GetString(0, "Missing") + row->GetString(0, "Absent") + row->GetString(1, "Word"), "");
}

TEST_F(OpenDatabaseTest, AnswersQuestionsAboutTablesAndRows) {
    ASSERT_TRUE(Run("CREATE TABLE Files (FileId INTEGER PRIMARY KEY, Name TEXT)"));
    ASSERT_TRUE(Run("CREATE TABLE sqlitelike (X INT)"));
    EXPECT_THAT(db_->GetTablesList(), ElementsAre("Files", "sqlitelike"));
    ASSERT_TRUE(Run("INSERT INTO Files VALUES (7, 'it''s')"));
    EXPECT_EQ(db_->ReadString("Files", "Name", "FileId", 7), "it's");
    EXPECT_EQ(db_->ReadString("Files", "Name", "FileId", 8, "none"), "none");
    EXPECT_EQ(db_->ReadInteger("Files", "FileId", "FileId", std::uint64_t{7}, -1), 7);
    EXPECT_EQ(db_->ReadInteger("Files", "FileId", "Name", KelString("it's"), -1), 7);
    EXPECT_EQ(db_->ReadInteger("Files", "FileId", "Name", KelString("its"), -1), -1);
}

TEST_F(OpenDatabaseTest, IsDurableAndDefensive) {
    const std::pair<const char*, const char*> settings[] = {
        {"journal_mode", "wal"}, {"synchronous", "2"}, {"trusted_schema", "0"}, {"mmap_size", "0"}};
    for (const auto& [name, value] : settings)
        EXPECT_EQ(Value(KelString("PRAGMA ") + name), value) << name;
    ASSERT_TRUE(Run("CREATE TABLE T (X INT)"));
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

TEST_F(OpenDatabaseTest, AFileHasOneConnection) {
    ASSERT_EQ(symlink(folder_.Path().c_str(), (folder_ / "link").c_str()), 0);
    ExpectNotOpened({path_, folder_ / "./test.sqlite", folder_ / "link/test.sqlite"});
    EXPECT_TRUE(OpenPath(folder_ / "other.sqlite"));
    EXPECT_TRUE(Open()) << "once the first has closed";
}

TEST_F(DatabaseTest, WhatCannotBeOpenedIsRefusedAndLeftAlone) {
    ASSERT_TRUE(DirCreate(folder_ / "folder"));
    ExpectNotOpened({KelString(), folder_ / "folder", folder_ / "missing/x.sqlite"});
    EXPECT_FALSE(OpenPath(path_, "OTHER"));
    EXPECT_THAT(DirList(folder_.Path()), ElementsAre("folder"));
}

TEST_F(OpenDatabaseTest, TransactionsTakeEffectWholeOrNotAtAll) {
    ASSERT_TRUE(Run("CREATE TABLE T (X INT PRIMARY KEY)"));
    {
        DBTransaction transaction(*db_);
        EXPECT_TRUE(Run("INSERT INTO T VALUES (1)"));
    }
    {
        DBTransaction outer(*db_);
        DBTransaction inner(*db_);
        EXPECT_FALSE(inner.IsOpen());
        EXPECT_FALSE(inner.Commit());
        EXPECT_TRUE(Run("INSERT INTO T VALUES (2)"));
        EXPECT_TRUE(outer.Commit());
    }
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "2");
    {
        DBTransaction transaction(*db_);
        EXPECT_TRUE(Run("INSERT INTO T VALUES (3)"));
        EXPECT_FALSE(Run("INSERT OR ROLLBACK INTO T VALUES (3)"));
        EXPECT_FALSE(Run("INSERT INTO T VALUES (4)")) << "the failure has ended the transaction";
        EXPECT_TRUE(Run("SELECT * FROM T"));
        EXPECT_FALSE(transaction.Commit());
    }
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "2");
    EXPECT_TRUE(Run("INSERT INTO T VALUES (5)"));
}

TEST_F(OpenDatabaseTest, ThreadsShareAConnection) {
    ASSERT_TRUE(Run("CREATE TABLE T (X INTEGER PRIMARY KEY)"));
    DBSequenceManager sequence;
    sequence.SetConnection(db_.get());
    OnThreads(4, [&](int) {
        for (int i = 0; i < 25; ++i) {
            EXPECT_TRUE(Run(KelFormat("INSERT INTO T VALUES (%gu)", sequence.GetId("T", "X"))));
            EXPECT_TRUE(Run("SELECT * FROM T"));
        }
    });
    EXPECT_EQ(Value("SELECT count(*) || ' ' || max(X) FROM T"), "100 100");
}

TEST_F(OpenDatabaseTest, IdentifiersAreNeverGivenTwice) {
    ASSERT_TRUE(Run("CREATE TABLE A (Id INTEGER)"));
    ASSERT_TRUE(Run("CREATE TABLE B (Id INTEGER)"));
    ASSERT_TRUE(Run("INSERT INTO B VALUES (41), (7)"));
    DBSequenceManager sequence;
    EXPECT_EQ(sequence.GetId("A", "Id"), 0u);
    sequence.SetConnection(db_.get());
    EXPECT_EQ(sequence.GetId("A", "Id"), 1u);
    EXPECT_EQ(sequence.GetId("B", "Id"), 42u);
    ASSERT_TRUE(Run("DELETE FROM B"));
    EXPECT_EQ(sequence.GetId("B", "Id"), 43u);
    EXPECT_EQ(sequence.GetId("A", "Id"), 2u);
    EXPECT_EQ(sequence.GetId("Missing", "Id"), 0u);
    ASSERT_TRUE(Run("INSERT INTO B VALUES (9223372036854775807)"));
    sequence.SetConnection(db_.get());
    EXPECT_EQ(sequence.GetId("B", "Id"), 0u);
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
};

TEST_F(DamagedDatabaseTest, IsMovedAsideWithItsLogAndReplacedByAnEmptyOne) {
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
}

TEST_F(DamagedDatabaseTest, ALeftLogAloneIsNoDamage) {
    TempFolder::Write(path_ + "-wal", KelString(5000, 'x'));
    ASSERT_TRUE(Open());
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "20");
    EXPECT_TRUE(kept_->TakeProblems().empty());
}

}  // namespace

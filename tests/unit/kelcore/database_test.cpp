#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "database_fixture.h"
#include "kel/text.h"
#include "kelcore/db/sequence_manager.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

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

    KelString statement = "SELECT Missing, '";
    while (statement.size() < 5000)
        statement += "\xC3\xA4";
    EXPECT_FALSE(Run(statement + "'"));
    const KelVector<KelString> lines = kept_->TakeProblems();
    EXPECT_THAT(lines, ElementsAre(AllOf(HasSubstr("no such column: Missing"), HasSubstr("\xC3\xA4..."))));
    EXPECT_LT(lines[0].size(), 800u) << "a long statement is logged in part";
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
    EXPECT_EQ(db_->GetLastResult(), row);
    db_->DisableBackupResult();
    EXPECT_TRUE(Run("SELECT 2"));
    EXPECT_EQ(db_->GetLastResult(), nullptr);
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

TEST_F(OpenDatabaseTest, AnObserverSeesEveryStatementBeforeItRuns) {
    KelVector<KelString> seen;
    ASSERT_TRUE(Run("CREATE TABLE T (Id INTEGER)"));
    db_->SetObserver([&](const KelString& statement) { seen.push_back(Trim(statement)); });
    {
        DBTransaction transaction(*db_);
        EXPECT_TRUE(Run("INSERT INTO T VALUES (1)"));
        EXPECT_TRUE(transaction.Commit());
    }
    EXPECT_TRUE(Run("CREATE UNIQUE INDEX I ON T (Id)"));
    EXPECT_FALSE(Run("INSERT INTO T VALUES (1)")) << "fails while it runs";
    const KelString ini = folder_ / "scripts.ini";
    ASSERT_TRUE(FileWriteText(ini, "[S]\nSql1=DELETE FROM T; DROP INDEX I\n"));
    EXPECT_TRUE(db_->RunIniScripts(ini, "S", false));
    db_->SetObserver({});
    EXPECT_TRUE(Run("DELETE FROM T"));
    EXPECT_THAT(seen, ElementsAre("BEGIN IMMEDIATE", "INSERT INTO T VALUES (1)", "COMMIT",
                                  "CREATE UNIQUE INDEX I ON T (Id)", "INSERT INTO T VALUES (1)",
                                  "DELETE FROM T;", "DROP INDEX I"));
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
    for (const KelString& name : {path_, folder_ / "./test.sqlite", folder_ / "link/test.sqlite"}) {
        EXPECT_FALSE(OpenPath(name)) << name;
        EXPECT_EQ(kept_->TakeProblems().size(), 1u) << name;
    }
    EXPECT_TRUE(OpenPath(folder_ / "other.sqlite"));
    EXPECT_TRUE(Open()) << "once the first has closed";
}

TEST_F(OpenDatabaseTest, ASerialPoolWaitsForItsTurn) {
    ASSERT_TRUE(Run("CREATE TABLE T (X INT)"));
    std::atomic<bool> closing = false;
    std::thread second([&] {
        const auto db = OpenPath(path_, true);
        EXPECT_TRUE(closing);
        EXPECT_TRUE(db && db->Query("SELECT * FROM T"));
    });
    closing = true;
    db_.reset();
    second.join();
    EXPECT_TRUE(kept_->TakeProblems().empty());
}

TEST_F(DatabaseTest, WhatCannotBeOpenedIsRefusedAndLeftAlone) {
    ASSERT_TRUE(DirCreate(folder_ / "folder"));
    for (const KelString& name : {KelString(), folder_ / "folder", folder_ / "missing/x.sqlite"}) {
        EXPECT_FALSE(OpenPath(name)) << name;
        EXPECT_EQ(kept_->TakeProblems().size(), 1u) << name;
    }
    EXPECT_FALSE(OpenPath(path_, false, "OTHER"));
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
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                EXPECT_TRUE(Run(KelFormat("INSERT INTO T VALUES (%gu)", sequence.GetId("T", "X"))));
                EXPECT_TRUE(Run("SELECT * FROM T"));
            }
        });
    threads.clear();  // joins
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

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string_view>
#include <thread>

#include "database_fixture.h"
#include "kelcore/db/sequence_manager.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

unsigned int ModeOf(const KelString& path) {
    struct stat state {};
    return stat(path.c_str(), &state) == 0 ? state.st_mode & 0777 : 0;
}

TEST_F(DatabaseTest, RunsExactlyOneStatement) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE T (FieldName TEXT, FieldValue TEXT)"));
    struct Case {
        KelString statement;
        bool runs;
    };
    const Case cases[] = {
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
    for (const Case& one : cases) {
        EXPECT_EQ(db->Query(one.statement) != nullptr, one.runs) << one.statement;
        EXPECT_EQ(captured_->Take().size(), one.runs ? 0u : 1u) << one.statement;
    }
    EXPECT_EQ(Value(*db, "SELECT group_concat(FieldName || FieldValue) FROM T"), "a1")
        << "a refused text must not have run in part";
}

TEST_F(DatabaseTest, LogsTheStartOfALongFailedStatement) {
    const auto db = Open();
    ASSERT_TRUE(db);
    KelString statement = "SELECT Missing, '";
    while (statement.size() < 5000)
        statement += "\xC3\xA4";
    EXPECT_FALSE(db->Query(statement + "'"));
    const KelVector<KelString> lines = captured_->Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("no such column: Missing"));
    EXPECT_THAT(lines[0], HasSubstr("SELECT Missing, '\xC3\xA4"));
    EXPECT_THAT(lines[0], HasSubstr("\xC3\xA4..."));
    EXPECT_LT(lines[0].size(), 800u);
}

TEST_F(DatabaseTest, ReadsValuesAsTheyWereStored) {
    const auto db = Open();
    ASSERT_TRUE(db);
    const auto row = db->Query(
        "SELECT NULL AS Missing, 9223372036854775807 AS Largest, -5 AS Negative, 4294967295 AS Wide, "
        "4294967296 AS TooWide, 'x1' AS Word, CAST(x'610062' AS TEXT) AS Zero, '\xE2\x82\xAC''\xFF' AS Raw");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->GetString(0, "missing"), "");
    EXPECT_EQ(row->GetInt64(0, "Missing"), 0);
    EXPECT_EQ(row->GetInt64(0, "LARGEST"), 9223372036854775807);
    EXPECT_EQ(row->GetInt64(0, "Negative"), -5);
    EXPECT_EQ(row->GetUint32(0, "Negative"), 0u);
    EXPECT_EQ(row->GetUint32(0, "Wide"), 4294967295u);
    EXPECT_EQ(row->GetUint32(0, "TooWide"), 0u);
    EXPECT_EQ(row->GetInt64(0, "Word"), 0);
    EXPECT_TRUE(row->GetBool(0, "Negative"));
    EXPECT_EQ(row->GetString(0, "Zero"), KelString("a\0b", 3));
    EXPECT_EQ(row->GetString(0, "Raw"), "\xE2\x82\xAC'\xFF");
    EXPECT_EQ(row->GetString(0, "Absent"), "");
    EXPECT_EQ(row->GetString(1, "Word"), "");
}

TEST_F(DatabaseTest, AnswersQuestionsAboutTheSchema) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE Files (FileId INTEGER PRIMARY KEY, Name TEXT)"));
    ASSERT_TRUE(db->Query("CREATE TABLE sqlitelike (X INT)"));
    ASSERT_TRUE(db->Query("CREATE INDEX ByName ON Files (Name)"));
    EXPECT_THAT(db->GetTablesList(), ElementsAre("Files", "sqlitelike"));
    const auto columns = db->Query("PRAGMA table_info (Files)");
    ASSERT_TRUE(columns);
    ASSERT_EQ(columns->GetRowCount(), 2u);
    EXPECT_EQ(columns->GetString(0, "name") + columns->GetString(0, "type"), "FileIdINTEGER");

    ASSERT_TRUE(db->Query("INSERT INTO Files VALUES (7, 'it''s')"));
    EXPECT_EQ(db->ReadString("Files", "Name", "FileId", 7), "it's");
    EXPECT_EQ(db->ReadString("Files", "Name", "FileId", 8, "none"), "none");
    EXPECT_EQ(db->ReadInteger("Files", "FileId", "FileId", std::uint64_t{7}, -1), 7);
    EXPECT_EQ(db->ReadInteger("Files", "FileId", "Name", KelString("it's"), -1), 7);
    EXPECT_EQ(db->ReadInteger("Files", "FileId", "Name", KelString("its"), -1), -1);
}

TEST_F(DatabaseTest, KeepsTheLastResultUntilToldNotTo) {
    const auto db = Open();
    ASSERT_TRUE(db);
    const auto result = db->Query("SELECT 1");
    EXPECT_EQ(db->GetLastResult(), result);
    db->DisableBackupResult();
    EXPECT_TRUE(db->Query("SELECT 2"));
    EXPECT_EQ(db->GetLastResult(), nullptr);
}

TEST_F(DatabaseTest, IsDurableAndDefensive) {
    const auto db = Open();
    ASSERT_TRUE(db);
    EXPECT_EQ(Value(*db, "PRAGMA journal_mode"), "wal");
    EXPECT_EQ(Value(*db, "PRAGMA synchronous"), "2");
    EXPECT_EQ(Value(*db, "PRAGMA trusted_schema"), "0");
    EXPECT_EQ(Value(*db, "PRAGMA mmap_size"), "0");
    ASSERT_TRUE(db->Query("CREATE TABLE T (X INT)"));
    db->Query("PRAGMA writable_schema=ON");
    EXPECT_FALSE(db->Query("DELETE FROM sqlite_master"));
}

TEST_F(DatabaseTest, FilesBelongToTheirOwnerAndACleanCloseLeavesOne) {
    ASSERT_TRUE(FileWriteText(path_, "", 0644));
    auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE T (X INT)"));
    EXPECT_EQ(ModeOf(path_), 0600u);
    EXPECT_EQ(ModeOf(path_ + "-wal"), 0600u);
    EXPECT_GT(FileGetSize64(path_ + "-wal"), 0);
    EXPECT_TRUE(db->Flush());
    EXPECT_EQ(FileGetSize64(path_ + "-wal"), 0);
    db.reset();
    EXPECT_THAT(DirList(folder_), ElementsAre("test.sqlite"));
    db = Open();
    ASSERT_TRUE(db);
    EXPECT_THAT(db->GetTablesList(), ElementsAre("T"));
}

TEST_F(DatabaseTest, AFileHasOneConnection) {
    auto first = Open();
    ASSERT_TRUE(first);
    ASSERT_EQ(symlink(folder_.c_str(), (folder_ + "/link").c_str()), 0);
    for (const KelString& name : {path_, folder_ + "/./test.sqlite", folder_ + "/link/test.sqlite"}) {
        EXPECT_FALSE(OpenPath(name)) << name;
        EXPECT_EQ(captured_->Take().size(), 1u) << name;
    }
    EXPECT_TRUE(OpenPath(folder_ + "/other.sqlite"));
    first.reset();
    EXPECT_TRUE(Open());
}

TEST_F(DatabaseTest, ASerialPoolWaitsForItsTurn) {
    auto first = Open();
    ASSERT_TRUE(first);
    ASSERT_TRUE(first->Query("CREATE TABLE T (X INT)"));
    std::atomic<bool> closing = false;
    std::thread second([&] {
        const auto db = OpenPath(path_, true);
        EXPECT_TRUE(closing);
        EXPECT_TRUE(db && db->Query("SELECT * FROM T"));
    });
    closing = true;
    first.reset();
    second.join();
    EXPECT_TRUE(captured_->Take().empty());
}

TEST_F(DatabaseTest, WhatCannotBeOpenedIsRefusedAndLeftAlone) {
    ASSERT_TRUE(DirCreate(folder_ + "/folder"));
    for (const KelString& name : {KelString(), folder_ + "/folder", folder_ + "/missing/x.sqlite"}) {
        EXPECT_FALSE(OpenPath(name)) << name;
        EXPECT_EQ(captured_->Take().size(), 1u) << name;
    }
    DBConnectionPool pool;
    pool.SetDebug(log_);
    pool.SetDatabase("OTHER", "", path_, "", "", 0);
    EXPECT_FALSE(pool.CreateConnection());
    EXPECT_THAT(DirList(folder_), ElementsAre("folder"));
}

TEST_F(DatabaseTest, TransactionsTakeEffectWholeOrNotAtAll) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE T (X INT PRIMARY KEY)"));
    {
        DBTransaction transaction(*db);
        EXPECT_TRUE(db->Query("INSERT INTO T VALUES (1)"));
    }
    {
        DBTransaction transaction(*db);
        EXPECT_TRUE(db->Query("INSERT INTO T VALUES (2)"));
        EXPECT_TRUE(transaction.Commit());
    }
    {
        DBTransaction outer(*db);
        DBTransaction inner(*db);
        EXPECT_FALSE(inner.IsOpen());
        EXPECT_FALSE(inner.Commit());
        EXPECT_TRUE(db->Query("INSERT INTO T VALUES (3)"));
        EXPECT_TRUE(outer.Commit());
    }
    EXPECT_EQ(Value(*db, "SELECT group_concat(X) FROM T"), "2,3");
}

TEST_F(DatabaseTest, NothingIsWrittenAfterAFailureHasEndedTheTransaction) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE T (X INT PRIMARY KEY)"));
    {
        DBTransaction transaction(*db);
        EXPECT_TRUE(db->Query("INSERT INTO T VALUES (1)"));
        EXPECT_FALSE(db->Query("INSERT OR ROLLBACK INTO T VALUES (1)"));
        EXPECT_FALSE(db->Query("INSERT INTO T VALUES (2)"));
        EXPECT_TRUE(db->Query("SELECT * FROM T"));
        EXPECT_FALSE(transaction.Commit());
    }
    EXPECT_EQ(Value(*db, "SELECT count(*) FROM T"), "0");
    EXPECT_TRUE(db->Query("INSERT INTO T VALUES (3)"));
}

TEST_F(DatabaseTest, ThreadsShareAConnection) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE T (X INTEGER PRIMARY KEY)"));
    DBSequenceManager sequence;
    sequence.SetConnection(db.get());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                EXPECT_TRUE(db->Query(KelFormat("INSERT INTO T VALUES (%gu)", sequence.GetId("T", "X"))));
                EXPECT_TRUE(db->Query("SELECT * FROM T"));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(Value(*db, "SELECT count(*) || ' ' || max(X) FROM T"), "100 100");
}

TEST_F(DatabaseTest, IdentifiersAreNeverGivenTwice) {
    const auto db = Open();
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->Query("CREATE TABLE A (Id INTEGER)"));
    ASSERT_TRUE(db->Query("CREATE TABLE B (Id INTEGER)"));
    ASSERT_TRUE(db->Query("INSERT INTO B VALUES (41), (7)"));
    DBSequenceManager sequence;
    EXPECT_EQ(sequence.GetId("A", "Id"), 0u);
    sequence.SetConnection(db.get());
    EXPECT_EQ(sequence.GetId("A", "Id"), 1u);
    EXPECT_EQ(sequence.GetId("B", "Id"), 42u);
    ASSERT_TRUE(db->Query("DELETE FROM B"));
    EXPECT_EQ(sequence.GetId("B", "Id"), 43u);
    EXPECT_EQ(sequence.GetId("A", "Id"), 2u);
    EXPECT_EQ(sequence.GetId("Missing", "Id"), 0u);
    ASSERT_TRUE(db->Query("INSERT INTO B VALUES (9223372036854775807)"));
    sequence.SetConnection(db.get());
    EXPECT_EQ(sequence.GetId("B", "Id"), 0u);
}

}  // namespace

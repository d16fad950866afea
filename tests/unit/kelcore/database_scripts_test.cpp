#include <atomic>
#include <thread>

#include "database_fixture.h"

namespace {

class DatabaseScriptsTest : public OpenDatabaseTest {
  protected:
    /// Runs the scripts of a section whose entries Sql1, Sql2 … are `entries`.
    bool RunScripts(const KelString& section, const KelString& entries) {
        return db_->RunIniScripts(WriteIni(section, entries), section, section == "SqlRunOnce");
    }
    bool Upgrade(const KelString& entries, const DBUpgradeProgress& progress = {}) {
        return db_->RunUpgrade("DatabaseInformation", "FieldName", "FieldValue",
                               WriteIni("SqlUpgrade", entries), "SqlUpgrade", progress);
    }
    KelString Version() {
        return Value("SELECT FieldValue FROM DatabaseInformation WHERE FieldName='SchemaVersion'");
    }

  private:
    KelString WriteIni(const KelString& section, const KelString& entries) {
        TempFolder::Write(folder_ / "test.ini", "[" + section + "]\n" + entries);
        return folder_ / "test.ini";
    }
};

TEST_F(DatabaseScriptsTest, RunInOrderUntilTheFirstGap) {
    const KelString entries =
        "Sql2=INSERT INTO T VALUES ('two')\n"
        "Sql1=CREATE TABLE IF NOT EXISTS T (X TEXT); INSERT INTO T VALUES ('one;'); -- done\n"
        "Sql3=INSERT INTO Missing VALUES (1)\n"
        "Sql4=CREATE TRIGGER IF NOT EXISTS R AFTER DELETE ON T BEGIN INSERT INTO T VALUES ('r'); END; "
        "INSERT INTO T VALUES ('four')\n"
        "Sql6=INSERT INTO T VALUES ('six')\n";
    EXPECT_FALSE(RunScripts("SqlRun", entries)) << "entry 3 fails";
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "one;,two,four");
    EXPECT_FALSE(RunScripts("SqlRun", entries));
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "6");
    EXPECT_TRUE(db_->RunIniScripts(folder_ / "test.ini", "Absent", false));
}

TEST_F(DatabaseScriptsTest, OnceMeansThatTheyRanWhole) {
    const KelString entries =
        "Sql1=CREATE TABLE T (X INT)\n"
        "Sql2=INSERT INTO T VALUES (1); INSERT INTO Later VALUES (1)\n"
        "Sql3=INSERT INTO T VALUES (3)\n";
    EXPECT_FALSE(RunScripts("SqlRunOnce", entries));
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "3") << "a failed entry leaves nothing behind";
    ASSERT_TRUE(Run("CREATE TABLE Later (X INT)"));
    EXPECT_TRUE(RunScripts("SqlRunOnce", entries));
    EXPECT_TRUE(RunScripts("SqlRunOnce", entries));
    EXPECT_EQ(Value("SELECT group_concat(X) FROM T"), "3,1");
    EXPECT_EQ(Value("SELECT max(FieldName) FROM DatabaseInformation"), "SqlRunOnce:SqlRunOnce:Sql3")
        << "databases that exist keep their marks";
}

TEST_F(DatabaseScriptsTest, UpgradeFromWhereverTheSchemaIs) {
    const KelString first = "Sql1=CREATE TABLE T (X INT)\n";
    const KelString second = first + "Sql2=ALTER TABLE T ADD COLUMN Y INT; INSERT INTO T VALUES (1, 2)\n";
    const KelString third = second + "Sql3=UPDATE T SET Y = 9\n";
    const KelString schema = "SELECT group_concat(sql) FROM sqlite_master";
    EXPECT_TRUE(Upgrade(first));
    EXPECT_EQ(Version(), "1");

    KelString steps;
    const DBUpgradeProgress note = [&steps](unsigned int reached, unsigned int target) {
        steps += KelFormat("%u of %u; ", reached, target);
    };
    ASSERT_TRUE(Open());
    EXPECT_TRUE(Upgrade(third, note));
    EXPECT_EQ(Value("SELECT X || Y FROM T"), "19");
    const KelString upgraded = Value(schema);
    EXPECT_TRUE(Upgrade(third, note));
    EXPECT_EQ(steps, "2 of 3; 3 of 3; ") << "once each";
    EXPECT_FALSE(Upgrade(second)) << "the schema is newer than the scripts";
    EXPECT_EQ(Version(), "3");

    db_ = OpenPath(folder_ / "fresh.sqlite");
    ASSERT_TRUE(db_ && Upgrade(third));
    EXPECT_EQ(Value(schema), upgraded);
}

TEST_F(DatabaseScriptsTest, AFailedUpgradeChangesNothingAndTheCopyStaysUntilTheProgramWorks) {
    const KelString first = "Sql1=CREATE TABLE T (X INT)\n";
    const KelString second = first + "Sql2=INSERT INTO T VALUES (2)\n";
    const KelString fourth = second +
                             "Sql3=INSERT INTO T VALUES (3); INSERT INTO Missing VALUES (2)\n"
                             "Sql4=INSERT INTO T VALUES (4)\n";
    const KelString copy = path_ + ".schema-1";
    ASSERT_TRUE(Upgrade(first));
    EXPECT_FALSE(FileExists(copy)) << "a new database has nothing to keep";
    EXPECT_FALSE(Upgrade(fourth));
    EXPECT_EQ(Version(), "1");
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "0");
    ASSERT_TRUE(Run("CREATE TABLE Missing (X INT); "));
    EXPECT_TRUE(Upgrade(fourth));
    EXPECT_EQ(Version(), "4");
    EXPECT_EQ(kept_->Count(KelDebugLevel::Error, "upgrade from schema version 1 to 4"), 1);

    EXPECT_FALSE(Upgrade(second)) << "the former version of the program";
    EXPECT_EQ(kept_->Count(KelDebugLevel::Error, "move " + copy), 1);
    auto before = OpenPath(copy);
    ASSERT_TRUE(before);
    EXPECT_EQ(before->ReadInteger("DatabaseInformation", "FieldValue", "FieldName", "SchemaVersion"), 1);
    before.reset();
    DBConnection::RemoveUpgradeCopies();
    EXPECT_FALSE(FileExists(copy));

    ASSERT_TRUE(Run("UPDATE DatabaseInformation SET FieldValue='x1' WHERE FieldName='SchemaVersion'"));
    EXPECT_FALSE(Upgrade(fourth)) << "an unreadable version is no version 0";
}

TEST_F(DatabaseScriptsTest, CopiesShowOneMomentWithoutATransaction) {
    const auto other = OpenPath(folder_ / "other.sqlite");
    ASSERT_TRUE(Run("CREATE TABLE T (X INT)") && other->Query("CREATE TABLE T (X INT)"));
    std::atomic<bool> isDone = false;
    // The same number in both, or one more in the first.
    std::thread writer([&] {
        for (int i = 0; !isDone; ++i) {
            for (DBConnection* const connection : {db_.get(), other.get()}) {
                DBTransaction transaction(*connection);
                connection->Query("INSERT INTO T VALUES (1)");
                connection->Query("INSERT INTO T VALUES (2)");
                transaction.Commit();
            }
        }
    });
    for (int i = 0; i < 10; ++i) {
        const KelString folder = folder_ / KelFormat("copies%d", i);
        const auto copies = DBConnection::CopyOpenDatabases(folder);
        ASSERT_TRUE(copies) << copies.Error().message;
        KelHash<KelString, std::int64_t> rows;
        for (const DBConnection::Copy& copy : *copies)
            rows[copy.path] =
                OpenPath(copy.copy)->Query("SELECT count(*) FROM T")->GetInt64(0, std::size_t{0});
        EXPECT_EQ(rows[path_] % 2, 0);
        EXPECT_TRUE(rows[path_] == rows[folder_ / "other.sqlite"] ||
                    rows[path_] == rows[folder_ / "other.sqlite"] + 2);
    }
    isDone = true;
    writer.join();
}

}  // namespace

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

TEST_F(DatabaseScriptsTest, AFailedUpgradeStopsAtTheLastGoodVersion) {
    const KelString entries =
        "Sql1=CREATE TABLE T (X INT)\n"
        "Sql2=INSERT INTO T VALUES (2); INSERT INTO Missing VALUES (2)\n"
        "Sql3=INSERT INTO T VALUES (3)\n";
    EXPECT_FALSE(Upgrade(entries));
    EXPECT_EQ(Version(), "1");
    EXPECT_EQ(Value("SELECT count(*) FROM T"), "0");
    ASSERT_TRUE(Run("CREATE TABLE Missing (X INT)"));
    EXPECT_TRUE(Upgrade(entries));
    EXPECT_EQ(Version(), "3");

    ASSERT_TRUE(Run("UPDATE DatabaseInformation SET FieldValue='x1' WHERE FieldName='SchemaVersion'"));
    EXPECT_FALSE(Upgrade(entries)) << "an unreadable version is no version 0";
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "database_fixture.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

bool Upgrade(DBConnection& db, const KelString& ini, const DBUpgradeProgress& progress = {}) {
    return db.RunUpgrade("DatabaseInformation", "FieldName", "FieldValue", ini, "SqlUpgrade", progress);
}

KelString VersionQuery() {
    return "SELECT FieldValue FROM DatabaseInformation WHERE FieldName='SchemaVersion'";
}

TEST_F(DatabaseTest, ScriptsRunInOrderUntilTheFirstGap) {
    const auto db = Open();
    ASSERT_TRUE(db);
    const KelString ini = WriteIni(
        "[SqlRun]\n"
        "Sql2=INSERT INTO T VALUES ('two')\n"
        "Sql1=CREATE TABLE IF NOT EXISTS T (X TEXT); INSERT INTO T VALUES ('one;'); -- done\n"
        "Sql3=INSERT INTO Missing VALUES (1)\n"
        "Sql4=CREATE TRIGGER IF NOT EXISTS R AFTER DELETE ON T BEGIN INSERT INTO T VALUES ('r'); END; "
        "INSERT INTO T VALUES ('four')\n"
        "Sql6=INSERT INTO T VALUES ('six')\n");
    EXPECT_FALSE(db->RunIniScripts(ini, "SqlRun", false)) << "entry 3 fails";
    EXPECT_EQ(Value(*db, "SELECT group_concat(X) FROM T"), "one;,two,four");
    EXPECT_FALSE(db->RunIniScripts(ini, "SqlRun", false));
    EXPECT_EQ(Value(*db, "SELECT count(*) FROM T"), "6");
    EXPECT_TRUE(db->RunIniScripts(ini, "Absent", false));
}

TEST_F(DatabaseTest, OnceScriptsAreRememberedOnlyWhenTheyRanWhole) {
    const auto db = Open();
    ASSERT_TRUE(db);
    const KelString broken = WriteIni(
        "[SqlRunOnce]\n"
        "Sql1=CREATE TABLE T (X INT)\n"
        "Sql2=INSERT INTO T VALUES (1); INSERT INTO Later VALUES (1)\n"
        "Sql3=INSERT INTO T VALUES (3)\n");
    EXPECT_FALSE(db->RunIniScripts(broken, "SqlRunOnce", true));
    EXPECT_EQ(Value(*db, "SELECT group_concat(X) FROM T"), "3") << "a failed entry leaves nothing behind";
    ASSERT_TRUE(db->Query("CREATE TABLE Later (X INT)"));
    EXPECT_TRUE(db->RunIniScripts(broken, "SqlRunOnce", true));
    EXPECT_TRUE(db->RunIniScripts(broken, "SqlRunOnce", true));
    EXPECT_EQ(Value(*db, "SELECT group_concat(X) FROM T"), "3,1");
    EXPECT_EQ(
        Value(*db,
              "SELECT count(*) FROM DatabaseInformation WHERE FieldName LIKE 'SqlRunOnce:SqlRunOnce:Sql_'"),
        "3");
}

TEST_F(DatabaseTest, UpgradesFromWhereverTheSchemaIs) {
    const KelString first = "[SqlUpgrade]\nSql1=CREATE TABLE T (X INT)\n";
    const KelString second = first + "Sql2=ALTER TABLE T ADD COLUMN Y INT; INSERT INTO T VALUES (1, 2)\n";
    const KelString third = second + "Sql3=UPDATE T SET Y = 9\n";
    auto db = Open();
    ASSERT_TRUE(db);
    EXPECT_TRUE(Upgrade(*db, WriteIni(first)));
    EXPECT_EQ(Value(*db, VersionQuery()), "1");

    KelVector<std::pair<unsigned int, unsigned int>> steps;
    const DBUpgradeProgress note = [&](unsigned int reached, unsigned int target) {
        steps.emplace_back(reached, target);
    };
    db.reset();
    db = Open();
    EXPECT_TRUE(Upgrade(*db, WriteIni(third), note));
    EXPECT_THAT(steps, ElementsAre(Pair(2, 3), Pair(3, 3)));
    EXPECT_EQ(Value(*db, VersionQuery()), "3");
    EXPECT_EQ(Value(*db, "SELECT X || Y FROM T"), "19");
    const KelString upgraded = Value(*db, "SELECT group_concat(sql) FROM sqlite_master");

    steps.clear();
    EXPECT_TRUE(Upgrade(*db, WriteIni(third), note)) << "nothing is left to do";
    EXPECT_TRUE(steps.empty());
    EXPECT_FALSE(Upgrade(*db, WriteIni(second))) << "the schema is newer than the scripts";
    EXPECT_EQ(Value(*db, VersionQuery()), "3");

    const auto fresh = OpenPath(folder_ + "/fresh.sqlite");
    EXPECT_TRUE(Upgrade(*fresh, WriteIni(third)));
    EXPECT_EQ(Value(*fresh, "SELECT group_concat(sql) FROM sqlite_master"), upgraded);
}

TEST_F(DatabaseTest, AFailedUpgradeStopsAtTheLastGoodVersion) {
    const auto db = Open();
    ASSERT_TRUE(db);
    const KelString ini = WriteIni(
        "[SqlUpgrade]\n"
        "Sql1=CREATE TABLE T (X INT)\n"
        "Sql2=INSERT INTO T VALUES (2); INSERT INTO Missing VALUES (2)\n"
        "Sql3=INSERT INTO T VALUES (3)\n");
    EXPECT_FALSE(Upgrade(*db, ini));
    EXPECT_EQ(Value(*db, VersionQuery()), "1");
    EXPECT_EQ(Value(*db, "SELECT count(*) FROM T"), "0");
    ASSERT_TRUE(db->Query("CREATE TABLE Missing (X INT)"));
    EXPECT_TRUE(Upgrade(*db, ini));
    EXPECT_EQ(Value(*db, VersionQuery()), "3");

    ASSERT_TRUE(db->Query("UPDATE DatabaseInformation SET FieldValue='x1'WHERE FieldName='SchemaVersion'"));
    EXPECT_FALSE(Upgrade(*db, ini)) << "an unreadable version is no version 0";
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database_fixture.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

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
    const std::tuple<const char*, std::size_t, bool> cases[] = {
        {"header", 0, false}, {"header, unclean stop", 0, true}, {"inner page, unclean stop", 8192, true}};
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
        EXPECT_EQ(FileExists(folder_ / names[1] + "-wal"), uncleanStop);
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

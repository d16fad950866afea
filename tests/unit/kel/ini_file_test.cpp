#include "kel/ini_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temp_folder.h"

namespace {

constexpr const char* kText =
    "; head\n"
    "top = 1\n"
    "[FileStore]\n"
    "  QueueGap =  30 \t\n"
    "# kept\n"
    "Path=  /a b/c = d ; no comment \r\n"
    "Bad=12x\nHuge=99999999999\nNegative=-5\nFlag=Yes\nOff=OFF\nOdd=maybe\nEmpty=\n"
    "\n"
    "[Other]\n"
    "QueueGap=1\n"
    "[filestore]\n"
    "queuegap=31\n"
    "; last words";

class IniFileTest : public testing::Test {
  protected:
    IniFileTest() { TempFolder::Write(path_, kText); }
    KelString Text(const KelString& section, const KelString& key) const {
        KelString value;
        return ini_.GetEntryValue(section, key, value, "none") ? value : value + "!";
    }
    int Number(const KelString& key) const {
        int value = 0;
        ini_.GetEntryValue("FILESTORE", key, value, 77);
        return value;
    }

    const TempFolder folder_;
    const KelString path_ = folder_ / "a.ini";
    IniFile ini_;
};

TEST_F(IniFileTest, ValuesOfEachTypeAndFallbacks) {
    ASSERT_TRUE(ini_.Open(path_));
    EXPECT_EQ(Number("queuegap"), 31) << "the last of several counts";
    EXPECT_EQ(Number("Negative"), -5);
    for (const char* key : {"Bad", "Huge", "Empty", "Missing"})
        EXPECT_EQ(Number(key), 77) << key;
    EXPECT_EQ(Text("FileStore", "Path"), "/a b/c = d ; no comment");
    EXPECT_EQ(Text("FileStore", "Empty") + Text("FileStore", "Missing"), "none!");
    EXPECT_EQ(Text("", "top"), "1");
    bool flag = false;
    EXPECT_TRUE(ini_.GetEntryValue("FileStore", "Flag", flag, false) && flag);
    EXPECT_TRUE(ini_.GetEntryValue("FileStore", "Off", flag, true) && !flag);
    EXPECT_TRUE(ini_.GetEntryValue("FileStore", "Odd", flag, true) && flag) << "no bool: the fallback";
    EXPECT_FALSE(ini_.GetEntryValue("Other", "Flag", flag, true));
    EXPECT_EQ(ini_.GetKeys("fileSTORE").size(), 9U) << "each once";
    EXPECT_EQ(ini_.GetSections(), (KelVector<KelString>{"FileStore", "Other"}));
    for (const auto& [key, value] : ini_.GetEntries("fileSTORE"))
        EXPECT_EQ(value, Text("FileStore", key)) << key;
}

TEST_F(IniFileTest, AWriteChangesOneLineAndKeepsTheMode) {
    ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
    ASSERT_TRUE(ini_.Open(path_));
    IniFile other;
    ASSERT_TRUE(other.Open(path_));
    ASSERT_TRUE(ini_.WriteEntryValue("FileStore", "PATH", "/new"));
    ASSERT_TRUE(other.WriteEntryValue("other", "Added", " 5 "));
    ASSERT_TRUE(other.WriteEntryValue("Fresh", "Key", ""));
    KelString expected = kText;
    expected.replace(expected.find("Path="), expected.find("\r\n") - expected.find("Path="), "PATH=/new");
    expected.insert(expected.find("[filestore]"), "Added=5\n");
    expected += "\n\n[Fresh]\nKey=\n";
    EXPECT_EQ(TempFolder::Read(path_), expected);
    EXPECT_EQ(Text("FileStore", "Path"), "/new");
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
}

TEST_F(IniFileTest, BadNamesAndValuesChangeNothing) {
    EXPECT_FALSE(ini_.WriteEntryValue("FileStore", "a", "b")) << "not open";
    ASSERT_TRUE(ini_.Open(path_));
    for (const char* key : {"a=b", "", "[x", ";a"})
        EXPECT_FALSE(ini_.WriteEntryValue("FileStore", key, "c")) << key;
    EXPECT_FALSE(ini_.WriteEntryValue("FileStore", "a", "b\n[Evil]\nx=1"));
    EXPECT_FALSE(ini_.WriteEntryValue("a]b", "a", "c"));
    EXPECT_EQ(TempFolder::Read(path_), kText);
}

TEST_F(IniFileTest, MissingFilesAreEmptyAndMalformedOnesRefused) {
    EXPECT_TRUE(ini_.Open(folder_ / "none.ini"));
    EXPECT_EQ(Number("QueueGap"), 77);
    ASSERT_TRUE(ini_.WriteEntryValue("FileStore", "QueueGap", "5"));
    EXPECT_EQ(TempFolder::Read(folder_ / "none.ini"), "[FileStore]\nQueueGap=5\n");
    for (const KelString& bad : KelVector<KelString>{
             "[open\n", "a=1\nno sign\n", "=x\n", KelString("a=\0\n", 4), "\xEF\xBB\xBF\xEF\xBB\xBF=x\n"}) {
        TempFolder::Write(folder_ / "bad.ini", bad);
        EXPECT_FALSE(ini_.Open(folder_ / "bad.ini")) << bad;
        EXPECT_EQ(Number("QueueGap"), 77) << "nothing of a former file stays";
    }
    EXPECT_FALSE(ini_.Open(folder_.Path()));
}

}  // namespace

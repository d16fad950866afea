#include "kelcore/ini_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kel/temp_folder.h"
#include "kelcore/module.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

bool IsShort(const KelString& text) {
    return text.size() < 4;
}

/// A module with one entry of each kind, all in the section S.
class DescribedModule : public KelModule {
  public:
    DescribedModule() : KelModule("Described", "Described module") {}

    KelVector<KelString> Faults(KelString path) {
        KelVector<IniFault> faults;
        EXPECT_EQ(Run(11, reinterpret_cast<long>(&faults), path.data()), kModuleSuccess);
        KelVector<KelString> texts;
        for (const IniFault& fault : faults)
            texts.push_back(KelFormat("%d %S", static_cast<int>(fault.weight), fault.text));
        return texts;
    }

  protected:
    void Register(const char*) override {}
    std::span<const IniSetting> IniSettings() const override {
        static const std::array settings = {IniSetting::Flag("S", "Flag", true),
                                            IniSetting::Number("S", "Seconds", 30).Between(5, 100),
                                            IniSetting::Number("S", "Port", 0).Between(0, 65535).Vital(),
                                            IniSetting::Text("S", "Mode", "auto").OneOf({"auto", "none"}),
                                            IniSetting::Text("S", "Name").Checked(IsShort, "a short name"),
                                            IniSetting::Text("S", "Sql*"),
                                            IniSetting::Text("Free", "*")};
        return settings;
    }
};

TEST(IniSettings, AValueIsUsedMovedIntoItsBoundsReplacedOrRefused) {
    const TempFolder folder;
    const std::tuple<const char*, const char*> cases[] = {
        {"[S]\nFlag=OFF\nSeconds=\nMode=None\nName=\nSql12=x\n[free]\nAny thing=1\n", ""},
        {"[S]\nFlag=maybe\n", "1 Flag in section S cannot be 'maybe': it takes true or false; true is used"},
        {"[S]\nSeconds=4\n", "0 Seconds in section S is 4; it is raised to 5, the least it takes"},
        {"[S]\nSeconds=101\n", "0 Seconds in section S is 101; it is lowered to 100, the most it takes"},
        {"[S]\nSeconds=-1\n", "1 Seconds in section S cannot be '-1': it takes a number from 5 to 100; 30"},
        {"[S]\nSeconds=99999999999\n", "30 is used"},
        {"[S]\nSeconds=1e1\n", "30 is used"},
        {"[S]\nPort=65536\n",
         "2 Port in section S cannot be '65536': it takes a number from 0 to 65535; correct"},
        {"[S]\nMode=\n", "it takes auto or none; auto is used"},
        {"[S]\nName=long\n", "it takes a short name; it is ignored"},
        {"[S]\nSecnods=5\n", "0 Secnods in section S is unknown and is ignored; did you mean Seconds?"},
        {"[Free]\n[S]\nSqlite=5\n", "Sqlite in section S is unknown and is ignored"},
        {"[Fee]\nA=5\n", "section Fee is unknown and is ignored; did you mean Free?"},
        {"Port=5\n", "Port stands before the first section"},
        {"no entry\n", "2 the file cannot be read"}};
    for (const auto& [text, fault] : cases) {
        TempFolder::Write(folder / "d.ini", text);
        const KelVector<KelString> faults = DescribedModule().Faults(folder / "d.ini");
        if (*fault == '\0')
            EXPECT_TRUE(faults.empty()) << faults.front();
        else
            EXPECT_THAT(faults, ElementsAre(HasSubstr(fault))) << text;
    }
}

}  // namespace

#include "module_fixture.h"
#include "modules/relay/relay.h"

namespace {

class PackageCopiesTest : public ModuleFixture {
  protected:
    void SetUp() override { WriteIni("Relay", "[Relay]\nRole=master\n"); }

    KelContainer Package(const std::string& label, const std::string& name, const std::string& content) {
        TempFolder::Write(root_ / "package", content);
        return Values({"FileType=OperationalRulePackage", "FileLabel=" + label, "FileName=" + name,
                       "FilePath=" + root_ / "package"});
    }
    std::string Copy(const std::string& below) { return root_ / ("data/Relay/Packages/" + below); }
};

TEST_F(PackageCopiesTest, AreKeptUntilTheirLabelIsCleared) {
    const std::string incoming = root_ / "data/Relay/Incoming";
    TempFolder::Write(incoming + "/.kel-stale", "left by a kill");
    RunningModule<Relay> module;
    for (const char* content : {"one", "two"}) {
        KelContainer package = Package("tools", "a b.zip", content);
        ASSERT_EQ(Call("RelayReceiveFile", package), 0U);
        EXPECT_EQ(package.GetString("FilePath"), Copy("tools/a b.zip"));
        EXPECT_EQ(TempFolder::Read(Copy("tools/a b.zip")), content);
    }
    ASSERT_EQ(Call("RelayReceiveFile", Package("other", "b", "three")), 0U);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Call("RelayClearPackage", Package("tools", "", "")), 0U);
        EXPECT_FALSE(std::filesystem::exists(Copy("tools")));
    }
    EXPECT_EQ(TempFolder::Read(Copy("other/b")), "three");
    EXPECT_TRUE(std::filesystem::is_empty(incoming));
}

TEST_F(PackageCopiesTest, UnusableCallsAreRefused) {
    RunningModule<Relay> module;
    const KelContainer package = Package("tools", "name", "content");
    for (const char* bad :
         {"FileLabel=..", "FileLabel=", "FileName=a/b", "FileName=", "FilePath=", "FilePath=package"})
        EXPECT_EQ(Call("RelayReceiveFile", With(package, {bad})), kKelErrorBadInput) << bad;
    EXPECT_EQ(Call("RelayReceiveFile", With(package, {"FilePath=" + root_ / "absent"})),
              kKelErrorMissingContent);
    for (const char* action : {"RelayReceiveFile", "RelayClearPackage"})
        EXPECT_EQ(Call(action, From(package, "127.0.3.9")), kKelErrorBadInput) << action;
    EXPECT_EQ(Call("RelayClearPackage", Package("..", "", "")), kKelErrorBadInput);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Relay/Packages"));
    EXPECT_TRUE(std::filesystem::exists(root_ / "data"));
}

}  // namespace

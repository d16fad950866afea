#include "kelcore/error_codes.h"
#include "module_fixture.h"
#include "modules/relay/relay.h"

namespace {

class PackageCopiesTest : public ModuleFixture {
  protected:
    KelContainer Package(const std::string& label, const std::string& name, const std::string& content) {
        TempFolder::Write(root_ / "package", content);
        KelContainer package;
        package.SetString("FileType", "OperationalRulePackage");
        package.SetString("FileLabel", label);
        package.SetString("FileName", name);
        package.SetString("FilePath", root_ / "package");
        return package;
    }
    std::string Copy(const std::string& below) { return root_ / ("data/Relay/Packages/" + below); }

    void SetUp() override { WriteIni("Relay", "[Relay]\nRole=master\n"); }
};

TEST_F(PackageCopiesTest, AreKeptUntilTheirLabelIsCleared) {
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    for (const char* content : {"one", "two"}) {
        KelContainer package = Package("tools", "a b.zip", content);
        ASSERT_EQ(Call("RelayReceiveFile", package), 0U);
        EXPECT_EQ(package.GetString("FilePath"), Copy("tools/a b.zip"));
        EXPECT_EQ(TempFolder::Read(Copy("tools/a b.zip")), content);
    }
    KelContainer other = Package("other", "b", "three");
    ASSERT_EQ(Call("RelayReceiveFile", other), 0U);
    for (int i = 0; i < 2; ++i) {
        KelContainer clear = Package("tools", "", "");
        EXPECT_EQ(Call("RelayClearPackage", clear), 0U);
        EXPECT_FALSE(std::filesystem::exists(Copy("tools")));
    }
    EXPECT_EQ(TempFolder::Read(Copy("other/b")), "three");
}

TEST_F(PackageCopiesTest, UnusableCallsAreRefused) {
    struct Case {
        const char* value;
        std::string text;
        unsigned int code;
    };
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    for (const Case& bad : {Case{"FileLabel", "..", 1}, Case{"FileLabel", "", 1}, Case{"FileName", "a/b", 1},
                            Case{"FileName", "", 1}, Case{"FilePath", "", 1}, Case{"FilePath", "package", 1},
                            Case{"FilePath", root_ / "absent", kKelErrorMissingContent}}) {
        KelContainer package = Package("tools", "name", "content");
        package.SetString(bad.value, bad.text);
        EXPECT_EQ(Call("RelayReceiveFile", package), bad.code) << bad.value << " " << bad.text;
    }
    KelContainer info;
    info.SetString("HttpProtocolRequestAddress", "127.0.3.9");
    for (const char* action : {"RelayReceiveFile", "RelayClearPackage"}) {
        KelContainer remote = Package("tools", "name", "content");
        remote.SetContainer("HttpProtocolRequestInfo", info);
        EXPECT_EQ(Call(action, remote), kKelErrorBadInput) << action;
    }
    KelContainer clear = Package("..", "", "");
    EXPECT_EQ(Call("RelayClearPackage", clear), kKelErrorBadInput);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Relay/Packages"));
    EXPECT_TRUE(std::filesystem::exists(root_ / "data"));
}

}  // namespace

#include "cli/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

std::optional<Options> Parse(std::vector<const char*> arguments, int& exitCode) {
    arguments.insert(arguments.begin(), "kel");
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data(), exitCode);
}

TEST(OptionsTest, UnusableArgumentsEndWithUsage) {
    const std::vector<std::vector<const char*>> cases = {
        {},
        {"status"},
        {"--root", "r", "unknown"},
        {"--root", "r", "--url", "http://h:1", "status"},
        {"--url", "http://h:1", "status"},
        {"--url", "http://h:1", "--user", "u", "status"},
        {"--root", "r", "publish", "--type", "t", "--label", "l", "--to", "all"},
        {"--root", "r", "publish", "/no/such/file", "--type", "t", "--label", "l", "--to", "all"},
        {"init", "d", "--role", "boss", "--address", "127.0.1.1", "--port", "1", "--password-file", "f"},
        {"init", "d", "--role", "master", "--address", "300.0.1.1", "--port", "1", "--password-file", "f"},
        {"init", "d", "--role", "master", "--address", "127.0.1.1", "--port", "70000", "--password-file",
         "f"},
        {"init", "d", "--role", "master", "--address", "127.0.1.1", "--port", "1"},
        {"--root", "r", "windows", "set", "sideways", "--slots", "1"},
        {"--root", "r", "windows", "set", "up"},
        {"--root", "r", "settings"},
        {"--root", "r", "settings", "set"},
        {"--root", "r", "send", "--type", "t", "--label", "l"},
        {"--root", "r", "send", "/no/such/file", "--type", "t", "--label", "l"},
        {"--root", "r", "send", "/proc/version", "--type", "t"},
        {"--root", "r", "request", "--type", "t", "--label", "l"},
        {"--root", "r", "request", "--type", "t", "--label", "l", "--name", "n", "--wait", "-1"},
        {"--root", "r", "publications", "one", "two"},
        {"--root", "r", "upload", "now"},
    };
    testing::internal::CaptureStderr();
    for (const auto& arguments : cases) {
        int exitCode = kExitDone;
        EXPECT_FALSE(Parse(arguments, exitCode)) << testing::PrintToString(arguments);
        EXPECT_EQ(exitCode, kExitUsage) << testing::PrintToString(arguments);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST(OptionsTest, CommonOptionsMayStandBehindTheCommand) {
    int exitCode = kExitFailed;
    const auto options = Parse({"files", "--upstream", "--root", "r", "--json"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->common.root, "r");
    EXPECT_TRUE(options->common.json);
    EXPECT_TRUE(std::get<FilesOptions>(options->command).upstream);
}

TEST(OptionsTest, PublishTakesSeveralFilesAndDevices) {
    int exitCode = kExitFailed;
    const auto options = Parse({"--root", "r", "publish", "/proc/version", "/proc/uptime", "--type", "t",
                                "--label", "l", "--to", "one,two", "--priority", "500", "--bypass"},
                               exitCode);
    ASSERT_TRUE(options);
    const auto& publish = std::get<PublishOptions>(options->command);
    EXPECT_THAT(publish.files, testing::ElementsAre("/proc/version", "/proc/uptime"));
    EXPECT_THAT(publish.devices, testing::ElementsAre("one", "two"));
    EXPECT_EQ(publish.priority, 500);
    EXPECT_TRUE(publish.bypass);
    EXPECT_FALSE(publish.wake);
    EXPECT_FALSE(publish.watch);
}

TEST(OptionsTest, CommandsForTheWayUp) {
    int exitCode = kExitFailed;
    auto options = Parse(
        {"send", "/proc/version", "/proc/uptime", "--type", "t", "--label", "l", "--root", "r"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_THAT(std::get<SendOptions>(options->command).files,
                testing::ElementsAre("/proc/version", "/proc/uptime"));
    options = Parse({"--root", "r", "request", "--type", "t", "--label", "l", "--name", "n", "--wait", "30"},
                    exitCode);
    ASSERT_TRUE(options);
    const auto& request = std::get<RequestOptions>(options->command);
    EXPECT_EQ(request.name, "n");
    EXPECT_EQ(request.checksum, "");
    EXPECT_EQ(request.waitSeconds, 30);
    options = Parse({"--root", "r", "publications", "abc"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(std::get<PublicationsOptions>(options->command).id, "abc");
}

TEST(OptionsTest, SettingsAndWindowsTellGetFromSet) {
    int exitCode = kExitFailed;
    auto options = Parse({"--root", "r", "settings", "set", "QueueGap=1"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_THAT(std::get<SettingsOptions>(options->command).assignments, testing::ElementsAre("QueueGap=1"));
    options = Parse({"--root", "r", "windows"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(std::get<WindowsOptions>(options->command).direction, "");
    options = Parse({"--root", "r", "windows", "set", "down", "--remove"}, exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(std::get<WindowsOptions>(options->command).direction, "down");
}

}  // namespace

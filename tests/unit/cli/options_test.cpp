#include "cli/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using testing::ElementsAre;

/// Parses "kel LINE", split at blanks.
std::optional<Options> Parse(const std::string& line, int& exitCode) {
    std::istringstream stream("kel " + line);
    const std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
    std::vector<const char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(word.c_str());
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data(), exitCode);
}

template <class Command>
Command CommandOf(const std::string& line) {
    int exitCode = kExitFailed;
    return std::get<Command>(Parse("--root r " + line, exitCode).value().command);
}

TEST(OptionsTest, UnusableArgumentsEndWithUsage) {
    testing::internal::CaptureStderr();
    for (const char* line : {"",
                             "status",
                             "--root r unknown",
                             "--root r --url http://h:1 status",
                             "--url http://h:1 status",
                             "--url http://h:1 --user u status",
                             "--url ftp://h:1 --user u --password-file f status",
                             "--url http://h:99999 --user u --password-file f status",
                             "--url h:1 --user u --password-file f status",
                             "--root r publish --type t --label l --to all",
                             "--root r publish /no/such/file --type t --label l --to all",
                             "init d --role boss --address 127.0.1.1 --port 1 --password-file f",
                             "init d --role master --address 300.0.1.1 --port 1 --password-file f",
                             "init d --role master --address 127.0.1.1 --port 70000 --password-file f",
                             "init d --role master --address 127.0.1.1 --port 1",
                             "--root r windows set sideways --slots 1",
                             "--root r windows set up",
                             "--root r windows set up --slots 1 --slot-type 4",
                             "--root r windows set up --slots 1 --slot-type 6",
                             "--root r file",
                             "--root r file 0",
                             "--root r file one",
                             "--root r settings",
                             "--root r settings set",
                             "--root r send --type t --label l",
                             "--root r send /no/such/file --type t --label l",
                             "--root r send /proc/version --type t",
                             "--root r request --type t --label l",
                             "--root r request --type t --label l --name n --wait -1",
                             "--root r publications one two",
                             "--root r upload now"}) {
        int exitCode = kExitDone;
        EXPECT_FALSE(Parse(line, exitCode)) << line;
        EXPECT_EQ(exitCode, kExitUsage) << line;
    }
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST(OptionsTest, AMistypedCommandIsNamedWithASimilarOne) {
    for (const auto& [line, message] : std::initializer_list<std::pair<const char*, const char*>>{
             {"--root r publsh f --type t", "'publsh'; did you mean 'publish'?"},
             {"--root r settings gte", "'settings gte'; did you mean 'get'?"},
             {"--root r nonsense", "'nonsense'; 'kel --help' lists the commands"},
             {"--root r upload now", "not expected: now"}}) {
        int exitCode = kExitDone;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(Parse(line, exitCode));
        EXPECT_EQ(exitCode, kExitUsage);
        EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(message)) << line;
    }
}

TEST(OptionsTest, CommonOptionsMayStandBehindTheCommand) {
    int exitCode = kExitFailed;
    const auto options = Parse("files --upstream --root r --json", exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->common.root, "r");
    EXPECT_TRUE(options->common.json);
    EXPECT_TRUE(std::get<FilesOptions>(options->command).upstream);
}

TEST(OptionsTest, ListsAndValuesReachTheirCommand) {
    const auto publish = CommandOf<PublishOptions>(
        "publish /proc/version /proc/uptime --type t --label l --to one,two --priority 500 --bypass");
    EXPECT_THAT(publish.files, ElementsAre("/proc/version", "/proc/uptime"));
    EXPECT_THAT(publish.devices, ElementsAre("one", "two"));
    EXPECT_EQ(publish.priority, 500);
    EXPECT_TRUE(publish.bypass);
    EXPECT_FALSE(publish.wake || publish.watch);
    EXPECT_EQ(CommandOf<FileOptions>("file 17 --upstream").id, 17);
    EXPECT_EQ(CommandOf<WindowsOptions>("windows set up --slots 50 --slot-type 7").slotType, 7);
}

}  // namespace

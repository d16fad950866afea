#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

#include "cli/backup_files.h"
#include "cli/command_table.h"
#include "cli/commands.h"
#include "cli/completion.h"
#include "cli/doctor.h"
#include "cli/file_selection.h"
#include "cli/hand_over.h"
#include "cli/init_command.h"
#include "cli/json_names.h"
#include "cli/local_root.h"
#include "cli/manual.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/publication_watch.h"
#include "cli/terminal.h"
#include "cli/top.h"
#include "kel/format.h"
#include "kel/temp_folder.h"
#include "kelcore/file_status_name.h"
#include "kelcore/json.h"
#include "kelcore/keys/invitation.h"
#include "kelcore/keys/key_pair.h"
#include "kelcore/version.h"

namespace {

TEST(TextTest, SizesAndSharesAtTheirLimits) {
    EXPECT_EQ(SizeText(1023) + SizeText(std::int64_t{256} << 20), "1023 B256.0 MiB");
    EXPECT_EQ(ProgressBar::Text(9, 4, 4) + ProgressBar::Text(0, 0, 4), "[####] 100 %[####] 100 %");
}

TEST(TableTest, ColumnsFitTheirWidestCellAndControlCharactersCannotSteerTheTerminal) {
    Table table({"NAME", "N", "X"});
    table.AddRow({"grün", "7", "a\x1b[2Jb\nc"});
    table.AddRow({"longer", "1024"});
    EXPECT_EQ(table.Render(),
              "NAME       N  X\n"
              "grün       7  a?[2Jb?c\n"
              "longer  1024\n");
}

TEST(TableTest, TheWidestTextIsShortenedByWhatTheTerminalLacks) {
    const auto render = [](std::size_t width) {
        Table table({"GUID", "FILE", "REASON"});
        table.Fit(width, {1, 2});
        table.AddRow({"ABCD-12345", "grüße-文件.bin", "it does not answer"});
        return table.Render();
    };
    EXPECT_EQ(render(0), render(46));
    EXPECT_EQ(render(45),
              "GUID        FILE            REASON\n"
              "ABCD-12345  grüße-文件.bin  it does not answ…\n");
    EXPECT_EQ(render(34),
              "GUID        FILE        REASON\n"
              "ABCD-12345  grüße-文…   it does n…\n");
    EXPECT_EQ(render(10), render(30)) << "a column must remain";
    EXPECT_EQ(Shortened("e\u0301te\u0301s", 3), "e\u0301t…");
    EXPECT_EQ(Shortened("\xC3\x28\xFF", 3), "\xC3\x28\xFF");
}

/// The devices of "GUID PARENT" texts as GUIDs, each behind a dot for each level of its depth.
KelString TreeOf(const KelVector<KelString>& devices) {
    KelContainer answer;
    for (const KelString& text : devices) {
        KelContainer device;
        device.SetString("GUID", text.substr(0, text.find(' ')));
        device.SetString("Parent", text.substr(text.find(' ') + 1));
        answer.SetContainer("Values", device, KelContainer::kAbsent);
    }
    KelString tree;
    for (const DeviceRow& row : OrderByParent(answer))
        tree += KelString(row.depth, '.') + answer.GetContainer("Values", row.index).GetString("GUID") + " ";
    return tree;
}

TEST(DeviceOrderTest, ChildrenFollowTheirParentsAndEveryDeviceAppearsOnce) {
    EXPECT_EQ(TreeOf({}), "");
    EXPECT_EQ(TreeOf({"c21 r2", "m ", "r1 m", "c11 r1", "r2 m", "c12 r1"}), "m .r1 ..c11 ..c12 .r2 ..c21 ");
    EXPECT_EQ(TreeOf({"m ", "a unknown", "b a"}), "m a .b ");
    EXPECT_EQ(TreeOf({"self self", "x y", "y x", "z y"}), "self x .y ..z ");
}

TEST(WakeTest, RequestTakesTheWayThroughTheTreeAndNamesTheCardOfTheDevice) {
    KelContainer devices;
    for (const auto& [guid, name, parent, path] : std::initializer_list<std::array<const char*, 4>>{
             {"m", "master", "", ""},
             {"1", "relay", "m", ""},
             {"2", "lower", "1", ""},
             {"3", "Device", "2", "h:1/g/02-00/127.0.1.1/255.0.0.0"},
             {"4", "near", "m", "h:1/g/02-00/127.0.1.2/255.0.0.0"},
             {"5", "lost", "gone", "h:1/g/c/i/m"},
             {"6", "round", "7", "h:1/g/c/i/m"},
             {"7", "turn", "6", "h:1/g/c/i/m"},
             {"8", "silent", "m", ""},
             {"9", "twin", "m", "h:1/g/c/i/m"},
             {"10", "TWIN", "m", "h:1/g/c/i/m"}}) {
        KelContainer device;
        for (const auto& [value, text] :
             {std::pair("GUID", guid), {"Name", name}, {"Parent", parent}, {"PathName", path}})
            device.SetString(value, text);
        device.SetString("Address", KelString(name) + ":1");
        devices.SetContainer("Values", device, KelContainer::kAbsent);
    }
    const auto call = WakeUpArguments(devices, "DEVICE");
    ASSERT_TRUE(call);
    EXPECT_EQ(call->Count("WakeOnLanWay"), 2U);
    EXPECT_EQ(call->GetString("WakeOnLanWay") + call->GetString("WakeOnLanWay", {}, 1), "relay:1lower:1");
    EXPECT_EQ(call->GetString("WakeOnLanDeviceMACAddr") + call->GetString("WakeOnLanDeviceIPAddr"),
              "02-00127.0.1.1");
    EXPECT_FALSE(WakeUpArguments(devices, "4")->Has("WakeOnLanWay"));
    for (const char* unusable : {"master", "unknown", "lost", "round", "silent", "Twin"})
        EXPECT_FALSE(WakeUpArguments(devices, unusable)) << unusable;
}

TEST(WindowsTest, WeekIsShownByDayAndHourWithWhatIsInForce) {
    KelString rates = "4M";
    for (int hour = 1; hour < 168; ++hour)
        rates += hour == 25 ? " closed" : " 4M";
    KelContainer up, relative, answer;
    for (const auto& [name, text] : {std::pair("Direction", "1"),
                                     {"CurrentRate", "4M"},
                                     {"NextRate", "closed"},
                                     {"CurrentSlot", "24"},
                                     {"SlotType", "3"},
                                     {"UseUTCTime", "true"},
                                     {"Week", "tue 1-2 closed; else 4M"}})
        up.SetString(name, text);
    up.SetInt64("NextChange", 1000000000);
    up.SetString("HourRates", rates);
    relative.SetInt32("Direction", 3);
    relative.SetInt32("SlotType", 5);
    answer.SetContainer("Values", up);
    answer.SetContainer("Values", relative, 1);
    const KelString text = WindowsText(answer);
    const KelString change = TimeText(1000000000);
    for (const KelString& part :
         {"up         4M         " + change + "  closed  UTC         tue 1-2 closed; else 4M",
          KelString("down       no limit"), KelString("multicast  as before  none"),
          KelString("up, UTC\n     0     1   2"), KelString("\nmon  4M    4M  4M"),
          KelString("\ntue  [4M]  -   4M")})
        EXPECT_THAT(text, testing::HasSubstr(part));
    EXPECT_EQ(WindowsLine(answer),
              "up 4M until " + change + ", then closed; down no limit; multicast as before");
}

TEST(CallArgumentsTest, TextJsonAndRepeatedNames) {
    KelContainer container;
    for (const char* text : {"Device=a=b", "Device=c", "Count:=7", "Flag:=true", "Values:={\"QueueGap\":1}",
                             "List:=[1,2]", "Big:=5000000000"})
        ASSERT_TRUE(AddCallArgument(text, container)) << text;
    EXPECT_EQ(container.GetString("Device", {}, 0), "a=b");
    EXPECT_EQ(container.GetString("Device", {}, 1), "c");
    EXPECT_EQ(container.GetType("Count"), KelContainer::Type::Int32);
    EXPECT_EQ(container.GetType("Flag"), KelContainer::Type::Bool);
    EXPECT_EQ(container.GetContainer("Values").GetInt32("QueueGap"), 1);
    EXPECT_EQ(container.GetInt32("List", 0, 1), 2);
    EXPECT_EQ(container.GetInt64("Big"), 5000000000);
    KelContainer none;
    for (const char* text : {"", "name", "=x", ":=1", "a:={", "a:=1,\"b\":2"})
        EXPECT_FALSE(AddCallArgument(text, none)) << text;
    EXPECT_TRUE(none.IsEmpty());
}

auto InitValues(const char* role, const char* parent, const char* password = "a long secret") {
    InitOptions options;
    options.role = role;
    options.parent = parent;
    options.address = "127.0.1.1";
    options.port = 8080;
    options.name = "tree";
    options.isPlain = true;
    options.passwordFile = "file";
    return TemplateValues(options, password);
}

TEST(InitTest, TheParentMustFitTheRole) {
    EXPECT_FALSE(InitValues("master", "h:1"));
    for (const char* parent : {"", "h", ":1", "h:", "h:0", "h:65536", "h:x", "a b:1", "h\n[x]:1"})
        EXPECT_FALSE(InitValues("relay", parent)) << parent;
    const auto values = InitValues("client", "relay.example:8081");
    ASSERT_TRUE(values);
    EXPECT_EQ(values->at("PARENT_NAME"), "relay.example");
    EXPECT_EQ(values->at("PARENT_PORT"), "8081");
    for (const char* password : {"", "p", "eleven char", "abababababababab"})
        EXPECT_FALSE(InitValues("master", "", password)) << password;
}

TEST(InitTest, ADeviceJoinsATreeWithKeysByAnInvitationAndAPlainOneByItsPassword) {
    const KelString token = KelInvitation{"AB12", 1, "0011223344556677",
                                          FingerprintOfDigest(KelString(32, 'a')), KelString(32, 's')}
                                .ToToken();
    struct {
        const char* role;
        bool isPlain;
        KelString passwordFile, token;
        bool isGood;
    } const cases[] = {{"master", false, "", "", true},   {"master", false, "", token, false},
                       {"master", true, "", "", false},   {"master", true, "f", "", true},
                       {"relay", false, "f", "", false},  {"relay", false, "", token, true},
                       {"client", false, "", "t", false}, {"client", false, "", token, true},
                       {"client", true, "f", "", true}};
    for (const auto& item : cases) {
        InitOptions options;
        options.role = item.role;
        options.parent = options.role == "master" ? "" : "h:1";
        options.name = "tree";
        options.isPlain = item.isPlain;
        options.passwordFile = item.passwordFile;
        options.token = item.token;
        const auto values = TemplateValues(options, "a long secret");
        ASSERT_EQ(bool(values), item.isGood) << item.role << item.isPlain << item.token;
        if (!values) continue;
        EXPECT_EQ(values->at("KEYS"), item.isPlain ? "false" : "true");
        EXPECT_EQ(values->at("MODULES").find("=Keys\n") == KelString::npos, item.isPlain);
    }
}

TEST(InitTest, OnlyTheMasterRunsTheConsoleAndArchivesCanBeUnpackedBeforeTheFileStoreRuns) {
    for (const KelString role : {"master", "relay", "client"}) {
        const auto values = InitValues(role.c_str(), role == "master" ? "" : "h:1");
        ASSERT_TRUE(values) << role;
        const KelString& modules = values->at("MODULES");
        EXPECT_EQ(modules.find("=Console\n") != KelString::npos, role == "master") << role;
        ASSERT_NE(modules.find("=CoreUtils\n"), KelString::npos) << role;
        EXPECT_LT(modules.find("=CoreUtils\n"), modules.find("=FileStore")) << role;
    }
}

TEST(InitTest, AgentIsStartedByTheUnitThatIsInstalledForItsFolder) {
    const TempFolder system;
    for (const char* unit : {"kelagent", "kelagent@"})
        TempFolder::Write(system / "usr/lib/systemd/system/" + unit + ".service", "");
    EXPECT_EQ(StartCommand("/var/lib/kel", system.Path()), "kelagent --root /var/lib/kel") << "no systemd";
    std::filesystem::create_directories(system / "run/systemd/system");
    for (const auto& [root, start, again] : std::initializer_list<std::array<KelString, 3>>{
             {"/var//lib/./kel/", "systemctl start kelagent", "systemctl restart kelagent"},
             {"/var/lib/kel-a-1", "systemctl enable --now kelagent@a-1", "systemctl restart kelagent@a-1"},
             {"/var/lib/kel-a b", "kelagent --root /var/lib/kel-a b", "kelagent --root /var/lib/kel-a b"},
             {"/var/lib/kel-a/b", "kelagent --root /var/lib/kel-a/b", "kelagent --root /var/lib/kel-a/b"}}) {
        EXPECT_EQ(StartCommand(root, system.Path()), start);
        EXPECT_EQ(RestartCommand(root, system.Path()), again);
    }
}

TEST(InitTest, PlaceholdersAreFilledOnceAndOtherTextStays) {
    EXPECT_EQ(FillTemplate("a@PORT@ b@c @X@PORT@ @", {{"PORT", "@X@"}, {"X", "no"}}), "a@X@ b@c noPORT@ @");
}

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

TEST(OptionsTest, UnusableArgumentsEndWithUsage) {
    testing::internal::CaptureStderr();
    std::istringstream lines(
        "|status|--root r unknown|--root r --url http://h:1 status|--url http://h:1 status"
        "|--url https://h:1 --user u --password-file f status|--root r --url https://h:1/x status"
        "|--url http://h:1 --user u status|--url ftp://h:1 --user u --password-file f status"
        "|--url http://h:99999 --user u --password-file f status|--url h:1 --user u --password-file f status"
        "|--root r publish --type t --label l --to all|--root r publish /no/such/file --type t --label l "
        "--to all"
        "|init d --role boss --address 127.0.1.1 --port 1 --password-file f"
        "|init d --role master --address 300.0.1.1 --port 1 --password-file f"
        "|init d --role master --address 127.0.1.1 --port 70000 --password-file f"
        "|init d --role relay --address 127.0.1.1 --port 1 --plain --join t"
        "|--root r invite --uses 0|--root r invite --expires 1y|--root r keys revoke|--root r keys join"
        "|--root r windows set sideways --slots 1"
        "|--root r windows set up|--root r windows set up 1M --slots 1|--root r windows set up --slots 1 "
        "--slot-type 4"
        "|--root r windows set up --slots 1 --slot-type 6|--root r file|--root r file 0|--root r file one"
        "|--root r settings|--root r settings set|--root r send --type t --label l"
        "|--root r send /no/such/file --type t --label l|--root r send /proc/version --type t"
        "|--root r request --type t --label l|--root r request --type t --label l --name n --wait -1"
        "|--root r publications one two|--root r upload now|--root r resume|--root r groups set g"
        "|--root r publish /proc/version --type t --label l --to all --stages 5%,x"
        "|--root r publish /proc/version --type t --label l --to all --stages 101"
        "|--root r publish /proc/version --type t --label l --to all --stop-at-failures 2"
        "|--root r publish /proc/version --type t --label l --to all --dry-run --watch");
    for (std::string line; std::getline(lines, line, '|');) {
        int exitCode = kExitDone;
        EXPECT_FALSE(Parse(line, exitCode)) << line;
        EXPECT_EQ(exitCode, kExitUsage) << line;
    }
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST(SelectionTest, FoldersAndListsGiveFilesWithTheirRelativePaths) {
    const TempFolder folder;
    for (const char* file :
         {"rel/top", "rel/bin/deep/a b", "rel/bin/x", "bad/a%2Fb", "worse/x/.kel-y", "one"})
        TempFolder::Write(folder / file, file);
    std::filesystem::create_directories(folder / "empty");
    std::filesystem::create_directory_symlink(folder / "bad", folder / "rel/link");
    TempFolder::Write(folder / "list", "# files\n\n" + folder / "one" + "\r\n" + folder / "rel");
    TempFolder::Write(folder / "targets", "a, b\r\n#x\nc d\n");
    const auto names = [&folder](const std::string& argument, bool recursive) {
        const std::string at = argument.starts_with("@") ? "@" : "";
        const auto selection = SelectFiles({at + folder / argument.substr(at.size())}, recursive);
        if (!selection) return std::string("refused");
        std::string text;
        for (const SourceFile& file : selection->files)
            text += file.name + " ";
        return text + std::to_string(selection->leftOut.size());
    };
    for (const auto& [argument, recursive, expected] :
         {std::tuple("rel", true, "bin%2Fdeep%2Fa b bin%2Fx top 1"),
          {"@list", true, "one bin%2Fdeep%2Fa b bin%2Fx top 1"},
          {"one", false, "one 0"},
          {"rel", false, "refused"},
          {"@list", false, "refused"},
          {"@none", true, "refused"},
          {"empty", true, "refused"},
          {"bad", true, "refused"},
          {"worse", true, "refused"},
          {"bad/a%2Fb", false, "refused"}})
        EXPECT_EQ(names(argument, recursive), expected) << argument;
    EXPECT_FALSE(SelectFiles({folder / "one", folder / "./one"}, false));
    EXPECT_THAT(*SelectTargets({"z", "@" + folder / "targets"}), ElementsAre("z", "a", "b", "c d"));
}

TEST(OptionsTest, CommonOptionsMayStandBehindTheCommandAndDevicesAreAList) {
    int exitCode = kExitFailed;
    const auto options =
        Parse("publish /proc/version --type t --label l --to one,two --root r --json", exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->common.root, "r");
    EXPECT_TRUE(options->common.json);
    EXPECT_THAT(std::get<PublishOptions>(options->command).devices, ElementsAre("one", "two"));
}

TEST(OptionsTest, StagesAndGroups) {
    int exitCode = kExitFailed;
    const auto publish = Parse(
        "publish --to one /proc/version --type t --label l --root r --stages 5%,50,100% --stop-at-failures 3",
        exitCode);
    ASSERT_TRUE(publish);
    EXPECT_THAT(std::get<PublishOptions>(publish->command).stages, ElementsAre(5, 50, 100));
    EXPECT_EQ(std::get<PublishOptions>(publish->command).stopAtFailures, 3);
    const auto groups = Parse("--root r groups add g one,two three", exitCode);
    ASSERT_TRUE(groups);
    EXPECT_EQ(std::get<GroupsOptions>(groups->command).verb, GroupsOptions::Verb::Add);
    EXPECT_THAT(std::get<GroupsOptions>(groups->command).members, ElementsAre("one", "two", "three"));
}

TEST(WatchTest, AStoppedPublicationIsNotWaitedForAndSaysWhy) {
    const std::tuple<const char*, PublicationState, const char*> cases[] = {
        {R"("State":"running","Failed":1)", PublicationState::Going, "1 failed; stage 1 of 3"},
        {R"("State":"stopped","Failed":1,"Reason":"why")", PublicationState::Failed,
         "stopped at stage 1 of 3: why"},
        {R"("Failed":1)", PublicationState::Going, "1 failed"},
        {R"("State":"complete","Failed":3)", PublicationState::Failed, "all 3 stages complete"}};
    for (const auto& [values, state, text] : cases) {
        KelContainer answer, published;
        ASSERT_TRUE(ContainerFromJson(
            KelFormat(
                R"({"Values":[{"PublicationId":"p","Targets":4,"Delivered":1,"Stage":1,"StageCount":3,%s}]})",
                values),
            answer));
        ASSERT_TRUE(ContainerFromJson(R"({"Values":[{"PublicationId":"p"}]})", published));
        TakeCounts(answer, published);
        EXPECT_EQ(StateOf(published.GetContainer("Values")), state);
        EXPECT_THAT(WatchText(published.GetContainer("Values")), testing::EndsWith(text));
    }
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

TEST(CommandTableTest, HelpManualAndCompletionKnowEveryCommandAndOption) {
    const KelVector<CommandEntry> table = CommandTable();
    const KelString manual = ManualPage(table), script = CompletionScript(table, "bash");
    KelString headings = manual;
    std::erase(headings, '\\');  // of "\\-"
    ASSERT_GT(table.size(), 30U);
    for (const CommandEntry& command : table) {
        int exitCode = kExitFailed;
        testing::internal::CaptureStdout();
        EXPECT_FALSE(Parse(command.name + " --help", exitCode));
        const KelString help = testing::internal::GetCapturedStdout();
        EXPECT_EQ(exitCode, kExitDone) << command.name;
        EXPECT_THAT(help, testing::HasSubstr(command.purpose));
        EXPECT_THAT(headings,
                    testing::HasSubstr(command.name.empty() ? ".SH OPTIONS" : ".SS " + command.name));
        EXPECT_THAT(script, testing::HasSubstr("'" + command.name + "') words="));
        for (const OptionEntry& option : command.options) {
            EXPECT_THAT(help, testing::HasSubstr(option.name));
            EXPECT_THAT(script, testing::HasSubstr("\\n" + option.name)) << command.name;
        }
    }
    const auto find = [&table](const KelString& name) {
        return *std::ranges::find(table, name, &CommandEntry::name);
    };
    EXPECT_EQ(SynopsisOf(find("send")), "send FILE... --type TYPE --label LABEL [--priority N] [--bypass]");
    EXPECT_THAT(find("init").options[1].choices, ElementsAre("master", "relay", "client"));
    EXPECT_THAT(manual, testing::HasSubstr(".SS windows set\n\\fBkel\\fR windows set DIRECTION [WEEK]"));
    EXPECT_THAT(manual, testing::HasSubstr("one of up, down, multicast."));
    for (const auto& [command, value, kind] : {std::tuple("why", "FILE", "publications"),
                                               {"send", "FILE", "files"},
                                               {"publish", "DEVICE,...", "devices"},
                                               {"send", "TYPE", ""}}) {
        OptionEntry option;
        option.value = value;
        EXPECT_EQ(KindOfValue(find(command), option), kind) << command;
    }
}

TEST(TopTest, RatesComeFromTwoStatesOfTheSameTransfer) {
    const auto state = [](const char* transfers) {
        KelContainer result;
        EXPECT_TRUE(ContainerFromJson(
            KelFormat(R"({"Transfers":[%s],"Waiting":{"WindowUp":{"Until":0},"WaitingTargets":3},)"
                      R"("Relay":{"Role":"client","ParentProblem":"off"}})",
                      transfers),
            result));
        return result;
    };
    const KelContainer before = state(R"({"FileId":1,"Since":5,"TransferredBytes":1000},)"
                                      R"({"FileId":2,"Since":5,"TransferredBytes":9})");
    KelContainer now =
        state(R"({"FileId":1,"Since":5,"TransferredBytes":5000,"FileSize":10000,"FileName":"a"},)"
              R"({"FileId":2,"Since":6,"TransferredBytes":70},)"
              R"({"FileId":1,"Since":5,"Upstream":true})");
    AddRates(before, std::chrono::seconds(2), now);
    EXPECT_EQ(now.GetContainer("Transfers", 0).GetInt64("Rate"), 2000);
    EXPECT_FALSE(now.GetContainer("Transfers", 1).Has("Rate")) << "it was begun anew";
    EXPECT_FALSE(now.GetContainer("Transfers", 2).Has("Rate"));
    const KelString text = TopText("desk", now, 2);
    for (const char* part :
         {"down 2, 2.0 KiB/s; up 1", "50 %", "1 more", "out of sync: off; the window up is closed"})
        EXPECT_THAT(text, testing::HasSubstr(part));
    KelContainer asked, silent;
    asked.SetString("Name", "desk");
    asked.SetContainer("State", now);
    silent.SetString("Name", "off");
    silent.SetString("Message", "it does not answer");
    const KelString tree = TopTreeText({asked, silent});
    EXPECT_THAT(tree, testing::HasSubstr("2, 2.0 KiB/s"));
    EXPECT_THAT(tree, testing::HasSubstr("it does not answer"));
}

TEST(JsonNamesTest, NamesAndStatusesAreThoseOfTheCommandLine) {
    for (const auto& [given, printed] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"FileId":7,"FileStatus":"_AGTMOD_FILESTORESTATUS_TOBEUPLOADED_","TransferredData":"50 %"})",
              R"({"id":7,"status":"to_be_uploaded","percent":50})"},
             {R"({"FileName":"n","TransferredData":"N/A","SomethingNew":1})", R"({"name":"n"})"},
             {R"({"FileStatus":"_AGTMOD_FILESTORESTATUS_UNICAST_AVAILABLE_"})",
              R"({"status":"unicast_available"})"},
             {R"({"Files":{"_AGTMOD_FILESTORESTATUS_AVAILABLE_":5000000000}})",
              R"({"files":{"available":5000000000}})"},
             {R"({"Agent":{"Modules":["a","b"]},"Relay":{"ParentSync":true}})",
              R"({"agent":{"modules":["a","b"]},"relay":{"parent_in_sync":true}})"}}) {
        KelContainer item;
        ASSERT_TRUE(ContainerFromJson(given, item)) << given;
        EXPECT_EQ(ContainerToJson(ForJson(item)), printed);
    }
}

/// The findings that are not ok, as "check state; ".
KelString Troubles(const KelVector<Finding>& findings) {
    KelString text;
    for (const Finding& finding : findings) {
        EXPECT_EQ(finding.advice.empty(), finding.state == Finding::State::Ok) << finding.message;
        if (finding.state != Finding::State::Ok)
            text += finding.check + (finding.state == Finding::State::Warning ? " warning; " : " problem; ");
    }
    return text;
}

TEST(DoctorTest, AParentMustAnswerFromTheAddressOfItsNameWithTheSameClock) {
    for (const auto& [json, troubles] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"Role":"master"})", ""},
             {R"({"Role":"client"})", "parent problem; "},
             {R"({"Role":"relay","ParentName":"n","ParentSync":false,"ParentProblem":"p"})",
              "parent problem; name problem; "},
             {R"({"Role":"client","ParentName":"n","ParentSync":true,"ParentIPAddress":"10.0.0.1",)"
              R"("ParentOwnAddress":"10.0.0.1","ParentTimeAhead":-60})",
              ""},
             {R"({"Role":"client","ParentName":"n","ParentSync":true,"ParentIPAddress":"10.0.0.1",)"
              R"("ParentOwnAddress":"10.0.0.2","ParentTimeAhead":-61})",
              "name problem; clock warning; "}}) {
        KelContainer relay;
        ASSERT_TRUE(ContainerFromJson(json, relay));
        EXPECT_EQ(Troubles(ExamineParent(relay)), troubles) << json;
    }
}

TEST(DoctorTest, CertificatesThatEndAreReportedInTime) {
    constexpr std::int64_t kNow = 1'800'000'000;
    constexpr std::int64_t kDay = 86400;
    for (const auto& [authority, begin, own, troubles] :
         std::initializer_list<std::tuple<int, int, int, const char*>>{{366, 0, 61, ""},
                                                                       {366, 1, 61, "keys problem; "},
                                                                       {364, 0, 61, "keys warning; "},
                                                                       {0, 0, 61, "keys problem; "},
                                                                       {366, 0, 59, "keys warning; "},
                                                                       {366, 0, 0, "keys problem; "}}) {
        KelContainer keys;
        keys.SetBool("IsEnrolled", true);
        keys.SetInt64("AuthorityNotAfter", kNow + authority * kDay);
        keys.SetInt64("NotBefore", kNow + begin * kDay);
        keys.SetInt64("NotAfter", kNow + own * kDay);
        EXPECT_EQ(Troubles(ExamineKeys(keys, kNow)), troubles) << authority << " " << own;
    }
    EXPECT_TRUE(ExamineKeys({}, kNow).empty()) << "a plain tree";
    KelContainer joining;
    joining.SetString("JoinProblem", "p");
    EXPECT_EQ(Troubles(ExamineKeys(joining, kNow)), "keys problem; ");
}

TEST(DoctorTest, VersionsOfParentAndChildrenMustBeTheInstalledOne) {
    const KelString own = KelVersion();
    for (const auto& [running, parent, child, found] :
         std::initializer_list<std::array<KelString, 4>>{{own, own, own, "as parent and children have"},
                                                         {"0.0", own, own, "runs version 0.0"},
                                                         {own, "9.9", own, "parent has 9.9"},
                                                         {own, "", "8.8", "children have 8.8"}}) {
        KelContainer relay, children;
        ASSERT_TRUE(ContainerFromJson(R"({"ParentVersion":")" + parent + R"("})", relay));
        ASSERT_TRUE(ContainerFromJson(R"({"Values":[{"Version":")" + child + R"("}]})", children));
        EXPECT_THAT(ExamineVersions(running, relay, children, "restart it").at(0).message,
                    testing::HasSubstr(found));
    }
}

TEST(BackupTest, TakesWhatTheTreeCannotBringBack) {
    const auto taken = [](const KelString& path) {
        KelString text;
        for (const auto& [choice, letter] : std::initializer_list<std::pair<BackupChoice, char>>{
                 {{.isMaster = true}, 'm'},
                 {{.isMaster = false}, 'd'},
                 {{.isMaster = false, .content = true}, 'c'}})
            if (choice.Takes(path)) text += letter;
        return text;
    };
    for (const auto& [path, takers] : std::initializer_list<std::pair<const char*, const char*>>{
             {"config/Agent.ini", "mdc"},
             {"data/Console/Packages/l/c/.hidden", "mdc"},
             {"data/Console/Console.sqlite", "mdc"},
             {"data/FileStore/FileStore.sqlite-wal", "m"},
             {"data/FileStore/Upstream.sqlite", ""},
             {"data/FileStore/downstream/T/l/c/a.sqlite", "c"},
             {"data/Delivery/Inbox/T/l/f", "c"},
             {"data/FileStore/unconnected/1.xml", "mdc"},
             {"data/Console/Console.sqlite.schema-8", ""},
             {"data/agent.lock", ""},
             {"log/agent.log", ""}})
        EXPECT_EQ(taken(path), takers) << path;
}

TEST(MulticastItemTest, StatesHaveNamesOfTheirOwn) {
    for (const auto& [status, printed] : std::initializer_list<std::pair<const char*, const char*>>{
             {"MulticastInProgress", R"({"group":"g","state":"in_progress","devices":3})"},
             {"Retry 2", R"({"group":"g","state":"retry","retry":2,"devices":3})"},
             {"Retry 0", R"({"group":"g","state":"retry","devices":3})"}}) {
        KelContainer values;
        values.SetString("MulticastAddress", "g");
        values.SetString("Status", status);
        values.SetInt32("CountStatus", 3);
        EXPECT_EQ(ContainerToJson(ForJson(MulticastItem(values))), printed);
    }
}

}  // namespace

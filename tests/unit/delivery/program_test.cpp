#include "modules/delivery/program.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <cstdlib>

#include "kel/unique_fd.h"
#include "modules/delivery/commands.h"

namespace {

using End = ProgramResult::End;

struct Outcome {
    ProgramResult result;
    KelVector<KelString> lines;
};

Outcome RunShell(const KelString& script, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    Outcome run;
    Program program;
    program.arguments = {"/bin/sh", "-c", script};
    program.timeout = timeout;
    program.output = [&](const KelString& line) { run.lines.push_back(line); };
    run.result = RunProgram(program);
    return run;
}

TEST(RunProgram, TellsHowTheProgramEndedAndWaitsForNoChildThatItLeftBehind) {
    for (const auto& [script, end, code] :
         {std::tuple{"echo one; printf two; exit 7", End::Exited, 7},
          {"echo one; printf two; kill -9 $$", End::Killed, SIGKILL},
          {"(sleep 20; echo late) & echo one; printf two", End::Exited, 0}}) {
        const Outcome run = RunShell(script);
        EXPECT_EQ(run.result.end, end) << script;
        EXPECT_EQ(run.result.code, code) << script;
        EXPECT_EQ(run.lines, (KelVector<KelString>{"one", "two"})) << script;
    }
}

TEST(RunProgram, TheWholeGroupIsEndedAtTheTimeOut) {
    const Outcome run = RunShell("trap '' TERM; echo $$; sleep 60; sleep 60", std::chrono::milliseconds(50));
    EXPECT_EQ(run.result.end, End::TimedOut);
    ASSERT_EQ(run.lines.size(), 1U);
    const pid_t group = std::stoi(run.lines.front());
    int left = 0;
    for (int i = 0; i < 500 && (left = kill(-group, 0)) == 0; ++i)
        poll(nullptr, 0, 10);
    EXPECT_EQ(left, -1) << "a process of the group is still there";
}

TEST(RunProgram, TheUmaskIsThatOfTheProgramAlone) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(RunShell("umask").lines, (KelVector<KelString>{"0022"}));
    EXPECT_EQ(::umask(before), 077U);
}

TEST(RunProgram, OpenFilesAreNotHandedOn) {
    const UniqueFd open(::open("/dev/null", O_RDONLY));
    const Outcome run =
        RunShell("for fd in /proc/self/fd/*; do [ $fd -ef /dev/null ] && echo ${fd##*/}; done; echo end");
    EXPECT_EQ(run.lines, (KelVector<KelString>{"0", "end"}));
}

TEST(RunProgram, OfTheEnvironmentOnlyPathsUserAndLanguageAreHandedOn) {
    ::setenv("NOTIFY_SOCKET", "/nowhere", 1);
    ::setenv("LC_TIME", "C.UTF-8", 1);
    EXPECT_EQ(RunShell("echo \"$NOTIFY_SOCKET,$LC_TIME,$PATH\"").lines,
              (KelVector<KelString>{KelString(",C.UTF-8,") + std::getenv("PATH")}));
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("LC_TIME");
}

TEST(RunProgram, LongLinesAreCutAndAllOutputIsRead) {
    const Outcome run = RunShell(
        "head -c 3000 /dev/zero | tr '\\0' a; echo; i=0; while [ $i -lt 20000 ]; do echo $i; "
        "i=$((i+1)); done");
    ASSERT_EQ(run.lines.size(), 20003U);
    EXPECT_EQ(run.lines[0], KelString(kMaxLineBytes, 'a'));
    EXPECT_EQ(run.lines[2], KelString(3000 - 2 * kMaxLineBytes, 'a'));
    EXPECT_EQ(run.lines.back(), "19999");
}

TEST(CommandLine, IsSplitAtBlanksOutsideQuotes) {
    const std::pair<const char*, KelVector<KelString>> cases[] = {
        {"/bin/a", {"/bin/a"}},
        {"  /bin/a  b\tc ", {"/bin/a", "b", "c"}},
        {"\"/opt/my tool\" \"\" x\"y z\"", {"/opt/my tool", "", "xy z"}},
        {"/bin/a $(b);c 'd e'", {"/bin/a", "$(b);c", "'d", "e'"}}};
    for (const auto& [text, words] : cases)
        EXPECT_EQ(*SplitCommandLine(text), words) << text;
    for (const char* bad : {"", "  ", "tool", "\"\" /bin/a", "/bin/a \"b"})
        EXPECT_FALSE(SplitCommandLine(bad)) << bad;
}

}  // namespace

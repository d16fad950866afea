#include "kel/debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "kel/directory.h"
#include "kel/text.h"
#include "temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class DebugTest : public testing::Test {
  protected:
    const TempFolder folder_;
    const KelString path_ = folder_ / "log/agent.log";
    KelDebug log_{"Mod", "A module"};
};

TEST_F(DebugTest, LinesHaveTimeLevelAndModuleAndCannotBeForged) {
    log_.SetContext(MakeDebugContext(path_, 1 << 20, 3, false, KelDebugLevel::Detail));
    log_.Trace("%s\n", "hidden");
    log_.Detail("%S\n", KelString("a\nb\r\t\x1B[1m\x7F\xC2\x85 {} \xC3\xA4 \\"));
    log_.Error("no line end %d", 5);
    // Each line is in the file at once, without closing it.
    const KelVector<KelString> lines = SplitText(TempFolder::Read(path_), '\n');
    ASSERT_EQ(lines.size(), 3U);
    const KelString time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";
    EXPECT_THAT(lines[0], MatchesRegex(time + " DETAIL Mod .*"));
    EXPECT_THAT(lines[0], HasSubstr("a\\x0Ab\\x0D\\x09\\x1B[1m\\x7F\\xC2\\x85 {} \xC3\xA4 \\"));
    EXPECT_THAT(lines[1], MatchesRegex(time + " ERROR Mod no line end 5"));
}

TEST_F(DebugTest, TheJournalGetsPrioritiesAndAnotherStderrTheWholeLine) {
    testing::internal::CaptureStderr();
    struct stat status {};
    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
    for (const KelString& stream :
         {std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino), KelString("1:1")}) {
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        log_.SetContext(MakeDebugContext({}, 0, 0, true, KelDebugLevel::Print));
        log_.Warning("disk of %s\n", "north");
        log_.Error("gone\n");
    }
    unsetenv("JOURNAL_STREAM");
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        MatchesRegex("<4>Mod: disk of north\n<3>Mod: gone\n[^<]* WARNING Mod disk.*\n[^<]* ERROR .*\n"));
}

TEST_F(DebugTest, FilesRotateAndOldOnesGo) {
    log_.SetContext(MakeDebugContext(path_, 2000, 3, false, KelDebugLevel::Trace));
    for (int i = 0; i < 400; ++i)
        log_.Print("line %d of many\n", i);
    EXPECT_THAT(TempFolder::Read(path_), HasSubstr("line 399"));
    const KelVector<KelString> names = DirList(folder_ / "log");
    EXPECT_EQ(names.size(), 3U);
    for (const KelString& name : names)
        EXPECT_LE(std::filesystem::file_size(folder_ / "log/" + name), 2000U);
}

TEST_F(DebugTest, ContextsCanChangeWhileThreadsWrite) {
    const auto first = MakeDebugContext(folder_ / "1.log", 1 << 20, 1, false, KelDebugLevel::Print);
    const auto second = MakeDebugContext(folder_ / "2.log", 1 << 20, 1, false, KelDebugLevel::Print);
    log_.SetContext(first);
    std::thread writer([&] {
        for (int i = 0; i < 1000; ++i)
            log_.Print("line %d\n", i);
    });
    for (int i = 0; i < 100; ++i)
        log_.SetContext(i % 2 == 0 ? second : first);
    writer.join();
    const KelString all = TempFolder::Read(folder_ / "1.log") + TempFolder::Read(folder_ / "2.log");
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1000);
}

TEST_F(DebugTest, WithoutAFileOnlyProblemsReachStderr) {
    TempFolder::Write(folder_ / "log", "a file where the folder should be");
    EXPECT_THROW(MakeDebugContext(path_, 1000, 1, false, KelDebugLevel::Print), std::runtime_error);
    testing::internal::CaptureStderr();
    log_.Print("quiet\n");
    log_.Warning("loud\n");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex("[^\n]* WARNING Mod loud\n"));
}

}  // namespace

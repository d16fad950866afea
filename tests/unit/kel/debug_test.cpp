#include "kel/debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "kel/directory.h"
#include "kel/text.h"
#include "temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

TEST(Debug, LinesHaveTimeLevelAndModuleAndCannotBeForged) {
    const TempFolder folder;
    const KelString path = folder / "log/agent.log";
    KelDebug log("Mod", "A module");
    log.SetContext(MakeDebugContext(path, 1 << 20, 3, false, KelDebugLevel::Detail));
    log.Trace("%s\n", "hidden");
    log.Detail("%S\n", KelString("a\nb\r\t\x1B[1m\x7F\xC2\x85 {} \xC3\xA4 \\"));
    log.Error("no line end %d", 5);
    // Each line is in the file at once, without closing it.
    const KelVector<KelString> lines = SplitText(TempFolder::Read(path), '\n');
    ASSERT_EQ(lines.size(), 3U);
    const KelString time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";
    EXPECT_THAT(lines[0], MatchesRegex(time + " DETAIL Mod .*"));
    EXPECT_THAT(lines[0], HasSubstr("a\\x0Ab\\x0D\\x09\\x1B[1m\\x7F\\xC2\\x85 {} \xC3\xA4 \\"));
    EXPECT_THAT(lines[1], MatchesRegex(time + " ERROR Mod no line end 5"));
}

TEST(Debug, FilesRotateAndOldOnesGo) {
    const TempFolder folder;
    KelDebug log("Mod", "A module");
    log.SetContext(MakeDebugContext(folder / "a.log", 2000, 3, false, KelDebugLevel::Trace));
    for (int i = 0; i < 400; ++i)
        log.Print("line %d of many\n", i);
    EXPECT_EQ(DirList(folder.Path()).size(), 3U);
    EXPECT_THAT(TempFolder::Read(folder / "a.log"), HasSubstr("line 399"));
    for (const KelString& name : DirList(folder.Path()))
        EXPECT_LE(std::filesystem::file_size(folder / name), 2000U);
}

TEST(Debug, ContextsCanChangeWhileThreadsWrite) {
    const TempFolder folder;
    KelDebug log("Mod", "A module");
    const auto first = MakeDebugContext(folder / "1.log", 1 << 20, 1, false, KelDebugLevel::Print);
    const auto second = MakeDebugContext(folder / "2.log", 1 << 20, 1, false, KelDebugLevel::Print);
    log.SetContext(first);
    std::thread writer([&] {
        for (int i = 0; i < 1000; ++i)
            log.Print("line %d\n", i);
    });
    for (int i = 0; i < 100; ++i)
        log.SetContext(i % 2 == 0 ? second : first);
    writer.join();
    const KelString all = TempFolder::Read(folder / "1.log") + TempFolder::Read(folder / "2.log");
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1000);
}

TEST(Debug, WithoutContextOnlyProblemsReachStderr) {
    KelDebug log("Mod", "A module");
    testing::internal::CaptureStderr();
    log.Print("quiet\n");
    log.Warning("loud\n");
    const KelString text = testing::internal::GetCapturedStderr();
    EXPECT_THAT(text, HasSubstr("WARNING Mod loud\n"));
    EXPECT_EQ(text.find("quiet"), KelString::npos);
}

TEST(Debug, LevelsByNameAndUnusableFiles) {
    EXPECT_EQ(ParseDebugLevel("Warning", KelDebugLevel::None), KelDebugLevel::Warning);
    EXPECT_EQ(ParseDebugLevel("NONE", KelDebugLevel::Print), KelDebugLevel::None);
    EXPECT_EQ(ParseDebugLevel("loud", KelDebugLevel::Print), KelDebugLevel::Print);
    const TempFolder folder;
    TempFolder::Write(folder / "file", "x");
    EXPECT_THROW(MakeDebugContext(folder / "file/a.log", 1000, 1, false, KelDebugLevel::Print),
                 std::runtime_error);
}

}  // namespace

#include "kelcore/archive.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "kel/directory.h"
#include "kel/temp_folder.h"
#include "read_zip.h"

namespace {

using Entries = KelVector<std::pair<KelString, KelString>>;

class ArchiveTest : public testing::Test {
  protected:
    std::string Source(const std::string& name, const std::string& content) {
        TempFolder::Write(folder_ / name, content);
        return folder_ / name;
    }
    /// Makes the archive with these files, deflated.
    void Pack(const Entries& files) {
        ASSERT_EQ(archive_.Create(path_), kArchiveDone) << archive_.GetErrorText();
        for (const auto& [name, content] : files)
            ASSERT_EQ(archive_.AddEntry(name, Source(name, content), 6), kArchiveDone);
        ASSERT_EQ(archive_.Close(), kArchiveDone) << archive_.GetErrorText();
    }
    Entries Read() { return ReadZip(path_); }
    std::size_t FilesInFolder() { return DirList(folder_.Path()).size(); }

    const TempFolder folder_;
    const std::string path_ = folder_ / "packed.zip";
    GenericArchive archive_{kArchiveZip};
};

TEST_F(ArchiveTest, StoresAsItIsWhatReceiversWouldTakeForABomb) {
    const std::string zeros(3 << 20, '\0');
    std::string text;
    for (int i = 0; text.size() < zeros.size(); ++i)
        text += "line " + std::to_string(i * 7919) + "\n";
    // The last one is too long to be taken into memory.
    const Entries files = {{"zeros", zeros}, {"text", text}, {"long", text + text + text}};
    Pack(files);
    EXPECT_TRUE(Read() == files);
    const auto size = std::filesystem::file_size(path_);
    EXPECT_GT(size, zeros.size());
    EXPECT_LT(size, zeros.size() + 2 * text.size()) << "text is deflated as ever";
}

TEST_F(ArchiveTest, AFailureLeavesTheOldArchiveAsItWas) {
    const Entries before = {{"first", "content"}};
    Pack(before);
    const std::string source = folder_ / "first";
    ASSERT_EQ(archive_.Open(path_), kArchiveDone);
    EXPECT_EQ(archive_.AddEntry("first", source, 6), kArchiveHasEntry);
    const std::string vanishing = Source("vanishing", "x");
    ASSERT_EQ(archive_.AddEntry("second", vanishing, 6), kArchiveDone);
    std::filesystem::remove(vanishing);
    EXPECT_EQ(archive_.Close(), kArchiveNoFile);
    EXPECT_EQ(Read(), before);

    const std::string big = Source("big", std::string(1 << 20, 'b'));
    ASSERT_EQ(archive_.Open(path_), kArchiveDone);
    ASSERT_EQ(archive_.AddEntry("second", big, 6, [](double) { return false; }), kArchiveDone);
    EXPECT_EQ(archive_.Close(), kArchiveCancelled);
    EXPECT_EQ(Read(), before);

    ASSERT_EQ(archive_.Open(path_), kArchiveDone);
    EXPECT_EQ(archive_.Close(), kArchiveDone) << "nothing was added";
    {
        GenericArchive abandoned(kArchiveZip);
        ASSERT_EQ(abandoned.Create(path_), kArchiveDone);
        ASSERT_EQ(abandoned.AddEntry("other", source, 6), kArchiveDone);
    }  // nothing is in place before Close
    EXPECT_EQ(Read(), before);
    EXPECT_EQ(FilesInFolder(), 3U);
}

TEST_F(ArchiveTest, RefusesWhatItCannotUse) {
    const std::string source = Source("source", "content");
    EXPECT_EQ(GenericArchive(2).Create(path_), kArchiveBadInput);
    EXPECT_EQ(archive_.AddEntry("a", source, 6), kArchiveBadInput) << "nothing is open";
    EXPECT_EQ(archive_.Open(path_), kArchiveNoFile);
    EXPECT_EQ(archive_.Open(source), kArchiveDamaged);
    EXPECT_EQ(archive_.Create(folder_ / "absent/x.zip"), kArchiveNotWritten);
    ASSERT_EQ(archive_.Create(path_), kArchiveDone);
    for (const char* name : {"", "/abs", "a/../b", "..", "a//b", "a/", "a\\b", "a\nb"})
        EXPECT_EQ(archive_.AddEntry(name, source, 6), kArchiveBadInput) << name;
    EXPECT_EQ(archive_.AddEntry("a", source, 10), kArchiveBadInput);
    for (const std::string& path : {folder_ / "absent", folder_.Path()})
        EXPECT_EQ(archive_.AddEntry("a", path, 6), kArchiveNoFile) << path;
    EXPECT_EQ(archive_.Close(), kArchiveBadInput) << "an empty archive";
    EXPECT_EQ(FilesInFolder(), 1U);
}

}  // namespace

#include "kelcore/archive.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

class ArchiveTest : public testing::Test {
  protected:
    ArchiveTest() {
        std::string name = (std::filesystem::temp_directory_path() / "archive_XXXXXX").string();
        folder_ = mkdtemp(name.data());
        path_ = folder_ / "packed.zip";
    }
    ~ArchiveTest() override { std::filesystem::remove_all(folder_); }

    std::string Source(const std::string& name, const std::string& content) {
        std::ofstream(folder_ / name, std::ios::binary) << content;
        return folder_ / name;
    }
    /// Names and contents in the order of the archive.
    Entries Read() {
        Entries entries;
        zip_t* archive = zip_open(path_.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
        if (archive == nullptr) return entries;
        for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
            zip_stat_t status;
            zip_stat_index(archive, i, 0, &status);
            std::string content(status.size, '\0');
            zip_file_t* file = zip_fopen_index(archive, i, 0);
            EXPECT_EQ(zip_fread(file, content.data(), content.size()),
                      static_cast<zip_int64_t>(content.size()));
            zip_fclose(file);
            entries.emplace_back(status.name, content);
        }
        zip_discard(archive);
        return entries;
    }
    std::size_t FilesInFolder() {
        const auto begin = std::filesystem::directory_iterator(folder_);
        return static_cast<std::size_t>(std::distance(begin, {}));
    }

    std::filesystem::path folder_;
    std::string path_;
};

}  // namespace

TEST_F(ArchiveTest, KeepsTheFirstEntryFirstWhenMoreAreAdded) {
    const std::string index = Source("index", "<index/>");
    const std::string large = Source("large", std::string(300'000, 'l') + "end");
    const std::string empty = Source("empty", "");
    {
        GenericArchive archive(kArchiveZip);
        ASSERT_EQ(archive.Create(path_), kArchiveDone) << archive.GetErrorText();
        ASSERT_EQ(archive.AddEntry("Temp/Index.xml", index, 6), kArchiveDone);
        EXPECT_FALSE(std::filesystem::exists(path_)) << "nothing is in place before Close";
        ASSERT_EQ(archive.Close(), kArchiveDone) << archive.GetErrorText();
        EXPECT_FALSE(archive.IsOpen());
    }
    for (int round = 0; round < 2; ++round) {
        GenericArchive archive(kArchiveZip);
        ASSERT_EQ(archive.Open(path_), kArchiveDone) << archive.GetErrorText();
        const std::string prefix = "upstream/" + std::to_string(round) + "/";
        ASSERT_EQ(archive.AddEntry(prefix + "\xC3\xA9 b", large, 6), kArchiveDone);
        ASSERT_EQ(archive.AddEntry(prefix + "a", empty, 0), kArchiveDone);
        ASSERT_EQ(archive.Close(), kArchiveDone) << archive.GetErrorText();
    }
    const std::string content = std::string(300'000, 'l') + "end";
    EXPECT_TRUE(Read() == (Entries{{"Temp/Index.xml", "<index/>"},
                                   {"upstream/0/\xC3\xA9 b", content},
                                   {"upstream/0/a", ""},
                                   {"upstream/1/\xC3\xA9 b", content},
                                   {"upstream/1/a", ""}}));
    EXPECT_LT(std::filesystem::file_size(path_), 10'000U) << "deflated";
    EXPECT_EQ(FilesInFolder(), 4U) << "no working file is left";
}

TEST_F(ArchiveTest, StoresAsItIsWhatReceiversWouldTakeForABomb) {
    const std::string zeros(3 << 20, '\0');
    std::string text;
    for (int i = 0; text.size() < zeros.size(); ++i)
        text += "line " + std::to_string(i * 7919) + "\n";
    GenericArchive archive(kArchiveZip);
    ASSERT_EQ(archive.Create(path_), kArchiveDone);
    ASSERT_EQ(archive.AddEntry("zeros", Source("zeros", zeros), 6), kArchiveDone);
    ASSERT_EQ(archive.AddEntry("text", Source("text", text), 6), kArchiveDone);
    ASSERT_EQ(archive.Close(), kArchiveDone);
    EXPECT_EQ(Read(), (Entries{{"zeros", zeros}, {"text", text}}));
    EXPECT_GT(std::filesystem::file_size(path_), zeros.size());
    EXPECT_LT(std::filesystem::file_size(path_), zeros.size() + text.size() / 2)
        << "text is deflated as ever";
}

TEST_F(ArchiveTest, AFailureLeavesTheOldArchiveAsItWas) {
    const std::string source = Source("source", "content");
    GenericArchive archive(kArchiveZip);
    ASSERT_EQ(archive.Create(path_), kArchiveDone);
    ASSERT_EQ(archive.AddEntry("first", source, 6), kArchiveDone);
    ASSERT_EQ(archive.Close(), kArchiveDone);
    const Entries before = Read();
    ASSERT_EQ(before.size(), 1U);

    ASSERT_EQ(archive.Open(path_), kArchiveDone);
    EXPECT_EQ(archive.AddEntry("first", source, 6), kArchiveHasEntry);
    const std::string vanishing = Source("vanishing", "x");
    ASSERT_EQ(archive.AddEntry("second", vanishing, 6), kArchiveDone);
    std::filesystem::remove(vanishing);
    EXPECT_EQ(archive.Close(), kArchiveNoFile);
    EXPECT_EQ(Read(), before);

    ASSERT_EQ(archive.Open(path_), kArchiveDone);
    ASSERT_EQ(
        archive.AddEntry("second", Source("big", std::string(1 << 20, 'b')), 6, [](double) { return false; }),
        kArchiveDone);
    EXPECT_EQ(archive.Close(), kArchiveCancelled);
    EXPECT_EQ(Read(), before);

    ASSERT_EQ(archive.Open(path_), kArchiveDone);
    EXPECT_EQ(archive.Close(), kArchiveDone) << "nothing was added";
    {
        GenericArchive abandoned(kArchiveZip);
        ASSERT_EQ(abandoned.Create(path_), kArchiveDone);
        ASSERT_EQ(abandoned.AddEntry("other", source, 6), kArchiveDone);
    }
    EXPECT_EQ(Read(), before);
    EXPECT_EQ(FilesInFolder(), 3U);
}

TEST_F(ArchiveTest, RefusesWhatItCannotUse) {
    const std::string source = Source("source", "content");
    EXPECT_EQ(GenericArchive(2).Create(path_), kArchiveBadInput);
    GenericArchive archive(kArchiveZip);
    EXPECT_EQ(archive.AddEntry("a", source, 6), kArchiveBadInput) << "nothing is open";
    EXPECT_EQ(archive.Open(path_), kArchiveNoFile);
    EXPECT_EQ(archive.Open(source), kArchiveDamaged);
    EXPECT_EQ(archive.Create((folder_ / "absent" / "x.zip").string()), kArchiveNotWritten);
    ASSERT_EQ(archive.Create(path_), kArchiveDone);
    for (const char* name : {"", "/abs", "a/../b", "..", "a//b", "a/", "a\\b", "a\nb"})
        EXPECT_EQ(archive.AddEntry(name, source, 6), kArchiveBadInput) << name;
    EXPECT_EQ(archive.AddEntry("a", source, 10), kArchiveBadInput);
    EXPECT_EQ(archive.AddEntry("a", folder_ / "absent", 6), kArchiveNoFile);
    EXPECT_EQ(archive.AddEntry("a", folder_, 6), kArchiveNoFile);
    EXPECT_EQ(archive.Close(), kArchiveBadInput) << "an empty archive";
    EXPECT_EQ(FilesInFolder(), 1U);
}

#include "kelcore/archive_extractor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zip.h>

#include <functional>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/temp_folder.h"
#include "kel/text.h"
#include "kelcore/archive.h"

namespace {

void Add(zip_t* archive, const KelString& name, const KelString& content) {
    char* copy = static_cast<char*>(malloc(content.size() + 1));  // libzip frees it
    content.copy(copy, content.size());
    ASSERT_GE(zip_file_add(archive, name.c_str(), zip_source_buffer(archive, copy, content.size(), 1),
                           ZIP_FL_ENC_UTF_8),
              0);
}

using Fill = std::function<void(zip_t*)>;

class ArchiveExtractorTest : public testing::Test {
  protected:
    void MakeArchive(const Fill& fill) {
        int problem = 0;
        zip_t* archive = zip_open(archive_.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &problem);
        fill(archive);
        EXPECT_EQ(zip_close(archive), 0);
    }
    /// Replaces all of one text by another of the same length in the archive's bytes.
    void Patch(const KelString& from, const KelString& to) {
        TempFolder::Write(archive_, ReplaceAll(TempFolder::Read(archive_), from, to));
    }
    unsigned int Extract(const ExtractionLimits& limits = {}) {
        std::filesystem::create_directories(store_);
        const KelStatus status = ExtractArchive(archive_, store_, limits);
        return status ? 0 : status.Error().code;
    }

    TempFolder folder_;
    const KelString archive_ = folder_ / "archive.zip";
    const KelString store_ = folder_ / "store";
};

TEST_F(ArchiveExtractorTest, UnpacksFilesFoldersAndReplacesOlderContent) {
    const KelString big(3 << 20, 'x');
    MakeArchive([&](zip_t* zip) {
        Add(zip, "Temp/index.xml", "index");
        zip_dir_add(zip, "upstream/empty", ZIP_FL_ENC_UTF_8);
        Add(zip, "upstream/a b/%ü'#/file", big);
    });
    std::filesystem::create_directories(store_ + "/Temp");
    TempFolder::Write(store_ + "/Temp/index.xml", "old");

    EXPECT_EQ(Extract({10, 4 << 20, 2000000}), 0u);
    EXPECT_EQ(TempFolder::Read(store_ + "/Temp/index.xml"), "index");
    EXPECT_EQ(TempFolder::Read(store_ + "/upstream/a b/%ü'#/file"), big);
    EXPECT_EQ(DirList(store_), (KelVector<KelString>{"Temp", "upstream"})) << "nothing else is left behind";
}

/// Into a folder that exists and into one that is made.
TEST_F(ArchiveExtractorTest, NumbersTheEntriesInsteadOfMakingFolders) {
    MakeArchive([](zip_t* zip) {
        zip_dir_add(zip, "upstream", ZIP_FL_ENC_UTF_8);
        Add(zip, "upstream/a/b/file", "first");
        Add(zip, "file", "second");
    });
    for (const bool exists : {false, true}) {
        if (exists) TempFolder::Write(store_ + "/2", "old");
        EXPECT_TRUE(ExtractArchive(archive_, store_, {}, ExtractionLayout::Numbered));
        EXPECT_EQ(DirList(store_), (KelVector<KelString>{"1", "2"}));
        EXPECT_EQ(TempFolder::Read(store_ + "/1") + TempFolder::Read(store_ + "/2"), "firstsecond");
    }
}

/// Every one holds a harmless entry first: it must not come out either.
TEST_F(ArchiveExtractorTest, HostileArchivesAreRefusedWhole) {
    struct Case {
        const char* name;
        Fill fill;
        unsigned int expected = kExtractUnsafe;
        ExtractionLimits limits = {};
    };
    const auto named = [](const char* name) { return [name](zip_t* zip) { Add(zip, name, "x"); }; };
    const auto link = [](zip_t* zip) {
        Add(zip, "link", "/etc/passwd");
        zip_file_set_external_attributes(zip, 1, 0, ZIP_OPSYS_UNIX, zip_uint32_t{S_IFLNK | 0777} << 16);
    };
    const auto encrypted = [](zip_t* zip) {
        Add(zip, "secret", "x");
        zip_file_set_encryption(zip, 1, ZIP_EM_AES_256, "password");
    };
    const auto bomb = [](zip_t* zip) { Add(zip, "zeros", KelString(64 << 20, '\0')); };
    for (const Case& hostile :
         {Case{"parent", named("../escaped")}, Case{"parent inside", named("a/../../escaped")},
          Case{"absolute", named("/tmp/escaped")}, Case{"backslash", named("..\\escaped")},
          Case{"control character", named("a\nb")}, Case{"file and folder", named("harmless/below")},
          Case{"link", link}, Case{"encrypted", encrypted}, Case{"bomb", bomb, kExtractTooLarge},
          Case{"too many entries", named("second"), kExtractTooLarge, {1, 1000, 200}},
          Case{"too many bytes", named("second"), kExtractTooLarge, {10, 7, 200}}}) {
        SCOPED_TRACE(hostile.name);
        MakeArchive([&](zip_t* zip) {
            Add(zip, "harmless", "content");
            hostile.fill(zip);
        });
        EXPECT_EQ(Extract(hostile.limits), hostile.expected);
        EXPECT_TRUE(DirList(store_).empty());
        EXPECT_EQ(DirList(folder_.Path()), (KelVector<KelString>{"archive.zip", "store"}));
    }
}

/// What GenericArchive packs is taken with the default limits, however much of it deflate makes vanish.
TEST_F(ArchiveExtractorTest, AnImageWithAHeaderAndZerosIsNoBomb) {
    constexpr std::uintmax_t kBytes = std::uintmax_t{128} << 20;
    TempFolder::Write(folder_ / "image", RandomBytes(2048));
    std::filesystem::resize_file(folder_ / "image", kBytes);
    GenericArchive archive(kArchiveZip);
    ASSERT_EQ(archive.Create(archive_), kArchiveDone);
    ASSERT_EQ(archive.AddEntry("image", folder_ / "image", 6), kArchiveDone);
    ASSERT_EQ(archive.Close(), kArchiveDone);
    EXPECT_EQ(Extract(), 0u);
    EXPECT_EQ(std::filesystem::file_size(store_ + "/image"), kBytes);
}

TEST_F(ArchiveExtractorTest, DamageAbsenceAndDoubledNamesAreToldApart) {
    EXPECT_EQ(Extract(), 13u);
    MakeArchive([](zip_t* zip) {
        Add(zip, "file", KelString(10, 'y'));
        zip_set_file_compression(zip, 0, ZIP_CM_STORE, 0);
    });
    Patch("yyyyy", "yyyyZ");
    EXPECT_EQ(Extract(), kExtractDamaged) << "a wrong CRC";
    EXPECT_TRUE(DirList(store_).empty());
    TempFolder::Write(archive_, "no archive at all");
    EXPECT_EQ(Extract(), kExtractDamaged);
    MakeArchive([](zip_t* zip) {
        Add(zip, "first", "1");
        Add(zip, "other", "2");
    });
    Patch("other", "first");
    EXPECT_EQ(Extract(), kExtractUnsafe) << "a name that stands twice";
}

}  // namespace

#include "modules/core_utils/archive_extractor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zip.h>

#include <functional>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/temp_folder.h"

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
    KelString MakeArchive(const Fill& fill) {
        const KelString path = folder_.Path() + "/archive.zip";
        FileDelete(path);
        int problem = 0;
        zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &problem);
        fill(archive);
        EXPECT_EQ(zip_close(archive), 0);
        return path;
    }

    unsigned int Extract(const KelString& archive, const ExtractionLimits& limits = {}) {
        PathCreate(Destination());
        const KelStatus status = ExtractArchive(archive, Destination(), limits);
        return status ? 0 : status.Error().code;
    }

    KelString Destination() const { return folder_.Path() + "/store"; }

    TempFolder folder_;
};

TEST_F(ArchiveExtractorTest, UnpacksFilesFoldersAndReplacesOlderContent) {
    const KelString big(3 << 20, 'x');
    const KelString archive = MakeArchive([&](zip_t* zip) {
        Add(zip, "Temp/index.xml", "index");
        zip_dir_add(zip, "upstream/empty", ZIP_FL_ENC_UTF_8);
        Add(zip, "upstream/a b/%ü'#/file", big);
    });
    PathCreate(Destination() + "/Temp");
    ASSERT_TRUE(FileWriteText(Destination() + "/Temp/index.xml", "old"));

    EXPECT_EQ(Extract(archive, {10, 4 << 20, 2000000}), 0u);
    EXPECT_EQ(*FileReadText(Destination() + "/Temp/index.xml", 100), "index");
    EXPECT_EQ(*FileReadText(Destination() + "/upstream/a b/%ü'#/file", 4 << 20), big);
    EXPECT_EQ(DirList(Destination()), (KelVector<KelString>{"Temp", "upstream"}))
        << "nothing else is left behind";
}

struct HostileArchive {
    const char* name;
    Fill fill;
    ExtractionLimits limits;
    unsigned int expected;
};

class HostileArchiveTest : public ArchiveExtractorTest, public testing::WithParamInterface<HostileArchive> {};

/// Every one holds a harmless entry first: it must not come out either.
TEST_P(HostileArchiveTest, IsRefusedWhole) {
    const KelString archive = MakeArchive([](zip_t* zip) {
        Add(zip, "harmless", "content");
        GetParam().fill(zip);
    });
    EXPECT_EQ(Extract(archive, GetParam().limits), GetParam().expected);
    EXPECT_TRUE(DirList(Destination()).empty());
    EXPECT_EQ(DirList(folder_.Path()), (KelVector<KelString>{"archive.zip", "store"}));
}

Fill Named(const char* name) {
    return [name](zip_t* zip) { Add(zip, name, "x"); };
}

void AddLink(zip_t* zip) {
    Add(zip, "link", "/etc/passwd");
    zip_file_set_external_attributes(zip, 1, 0, ZIP_OPSYS_UNIX,
                                     static_cast<zip_uint32_t>(S_IFLNK | 0777) << 16);
}

void AddEncrypted(zip_t* zip) {
    Add(zip, "secret", "x");
    zip_file_set_encryption(zip, 1, ZIP_EM_AES_256, "password");
}

const ExtractionLimits kLimits;
INSTANTIATE_TEST_SUITE_P(
    Archives, HostileArchiveTest,
    testing::Values(HostileArchive{"Parent", Named("../escaped"), kLimits, kExtractUnsafe},
                    HostileArchive{"ParentInside", Named("a/../../escaped"), kLimits, kExtractUnsafe},
                    HostileArchive{"Absolute", Named("/tmp/escaped"), kLimits, kExtractUnsafe},
                    HostileArchive{"Backslash", Named("..\\escaped"), kLimits, kExtractUnsafe},
                    HostileArchive{"ControlCharacter", Named("a\nb"), kLimits, kExtractUnsafe},
                    HostileArchive{"FileAndFolder", Named("harmless/below"), kLimits, kExtractUnsafe},
                    HostileArchive{"Link", AddLink, kLimits, kExtractUnsafe},
                    HostileArchive{"Encrypted", AddEncrypted, kLimits, kExtractUnsafe},
                    HostileArchive{"TooManyEntries", Named("second"), {1, 1000, 200}, kExtractTooLarge},
                    HostileArchive{"TooManyBytes", Named("second"), {10, 7, 200}, kExtractTooLarge},
                    HostileArchive{"Bomb", [](zip_t* zip) { Add(zip, "zeros", KelString(64 << 20, '\0')); },
                                   kLimits, kExtractTooLarge}),
    [](const auto& test) { return test.param.name; });

/// Changes the archive's bytes after it was written.
KelString Patched(const KelString& archive, const KelString& from, const KelString& to) {
    KelString bytes = *FileReadText(archive, 1 << 20);
    for (std::size_t at = bytes.find(from); at != KelString::npos; at = bytes.find(from, at + to.size()))
        bytes.replace(at, from.size(), to);
    EXPECT_TRUE(FileWriteText(archive, bytes));
    return archive;
}

TEST_F(ArchiveExtractorTest, ANameThatStandsTwiceIsRefused) {
    const KelString archive = MakeArchive([](zip_t* zip) {
        Add(zip, "first", "1");
        Add(zip, "other", "2");
    });
    EXPECT_EQ(Extract(Patched(archive, "other", "first")), kExtractUnsafe);
}

TEST_F(ArchiveExtractorTest, DamageAndAbsenceAreToldApart) {
    const KelString content(5000, 'y');
    const KelString archive = MakeArchive([&](zip_t* zip) {
        Add(zip, "file", content);
        zip_set_file_compression(zip, 0, ZIP_CM_STORE, 0);
    });
    EXPECT_EQ(Extract(Patched(archive, "yyyyyyyyyy", "yyyyyZyyyy")), kExtractDamaged) << "a wrong CRC";
    EXPECT_TRUE(DirList(Destination()).empty());
    ASSERT_TRUE(FileWriteText(archive, "no archive at all"));
    EXPECT_EQ(Extract(archive), kExtractDamaged);
    EXPECT_EQ(Extract(folder_.Path() + "/absent.zip"), 13u);
}

}  // namespace

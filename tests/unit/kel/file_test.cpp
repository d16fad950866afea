#include "kel/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/path.h"
#include "temp_folder.h"

namespace {

using Names = KelVector<KelString>;

TEST(File, ReplacingIsAtomicAndLeavesNothingBehind) {
    const TempFolder folder;
    const KelString path = folder / "a";
    ASSERT_TRUE(FileWriteText(path, "one", 0600));
    ASSERT_TRUE(FileWriteText(path, "two", 0640));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
    EXPECT_EQ(*FileReadText(path, 3), "two");
    EXPECT_FALSE(FileReadText(path, 2)) << "one byte too many";
    EXPECT_EQ(FileReadText(folder / "none", 9).Error().code, 3U);
    EXPECT_FALSE(FileWriteText(folder / "none/a", "x"));
    ASSERT_TRUE(DirCreate(folder / "d"));
    EXPECT_FALSE(FileWriteText(folder / "d", "x")) << "a folder is not replaced";
    EXPECT_FALSE(FileReadText(folder / "d", 9));
    EXPECT_EQ(DirList(folder.Path()), (Names{"a", "d"}));
}

TEST(File, CopyRenameAndDelete) {
    const TempFolder folder;
    KelString content;
    for (int i = 0; i < 700'000; ++i)
        content += static_cast<char>(i * 7 + i / 251);
    TempFolder::Write(folder / "a", content);
    TempFolder::Write(folder / "b", "old");
    EXPECT_FALSE(FileCopy(folder / "a", folder / "b", true));
    EXPECT_EQ(TempFolder::Read(folder / "b"), "old");
    ASSERT_TRUE(FileCopy(folder / "a", folder / "b", false));
    EXPECT_TRUE(TempFolder::Read(folder / "b") == content);
    ASSERT_TRUE(FileCopy(folder / "a", folder / "c", true));
    EXPECT_EQ(FileGetSize64(folder / "c"), 700'000);
    ASSERT_TRUE(FileCopy("/proc/self/status", folder / "p", false)) << "a file that says it has no size";
    EXPECT_GT(FileGetSize64(folder / "p"), 0);
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(FileCopy(folder / "fifo", folder / "x", false));
    EXPECT_FALSE(FileCopy(folder / "none", folder / "x", false));
    EXPECT_FALSE(FileCopy(folder / "a", folder / "none/x", false));

    ASSERT_TRUE(FileRename(folder / "c", folder / "b"));
    EXPECT_FALSE(FileExists(folder / "c"));
    EXPECT_FALSE(FileRename(folder / "c", folder / "b"));
    EXPECT_TRUE(FileDelete(folder / "b"));
    EXPECT_TRUE(FileDelete(folder / "b")) << "gone already";
    EXPECT_FALSE(FileDelete(folder.Path())) << "a folder";
    EXPECT_EQ(FileGetSize64(folder.Path()), -1);
    EXPECT_EQ(DirList(folder.Path()), (Names{"a", "fifo", "p"}));
}

TEST(File, RenameAcrossFileSystemsCopies) {
    const TempFolder folder;
    const KelString far = "/dev/shm/kel-test-" + std::to_string(::getpid());
    struct stat here {
    }, there{};
    if (::stat("/dev/shm", &there) != 0 || ::stat(folder.Path().c_str(), &here) != 0 ||
        here.st_dev == there.st_dev || ::access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "needs a second file system";
    TempFolder::Write(folder / "a", "content");
    ASSERT_TRUE(FileRename(folder / "a", far));
    EXPECT_FALSE(FileExists(folder / "a"));
    ASSERT_TRUE(FileRename(far, folder / "b"));
    EXPECT_FALSE(FileExists(far));
    EXPECT_EQ(TempFolder::Read(folder / "b"), "content");
}

TEST(File, OpenBeneathStaysInside) {
    const TempFolder folder;
    const KelString root = folder / "root";
    ASSERT_TRUE(PathCreate(root + "/sub"));
    TempFolder::Write(root + "/sub/in", "in");
    TempFolder::Write(folder / "out", "out");
    ASSERT_EQ(::symlink("../out", (root + "/leaves").c_str()), 0);
    ASSERT_EQ(::symlink((folder / "out").c_str(), (root + "/absolute").c_str()), 0);
    ASSERT_EQ(::symlink("sub/in", (root + "/stays").c_str()), 0);
    if (!FileOpenBeneath(root, "sub/in", O_RDONLY) && errno == ENOSYS) GTEST_SKIP() << "old kernel";
    EXPECT_TRUE(FileOpenBeneath(root, "sub/in", O_RDONLY));
    const UniqueFd made = FileOpenBeneath(root, "sub/new", O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_TRUE(made);
    EXPECT_EQ(::fcntl(made.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    for (const KelString& name :
         {KelString("../out"), folder / "out", KelString("leaves"), KelString("absolute"), KelString("stays"),
          KelString("sub/../../out"), KelString("sub/in\0x", 8)})
        EXPECT_FALSE(FileOpenBeneath(root, name, O_RDONLY)) << name;
}

TEST(Directory, CopyAndDeleteTreesWithoutFollowingLinks) {
    const TempFolder folder;
    ASSERT_TRUE(PathCreate(folder / "from/x/y/"));
    TempFolder::Write(folder / "from/x/y/f", "1");
    TempFolder::Write(folder / "from/g", "2");
    TempFolder::Write(folder / "keep", "3");
    ASSERT_EQ(::symlink(folder.Path().c_str(), (folder / "from/link").c_str()), 0);
    ASSERT_TRUE(PathCreate(folder / "to/x"));
    TempFolder::Write(folder / "to/g", "replaced");
    ASSERT_TRUE(DirCopy(folder / "from", folder / "to"));
    EXPECT_EQ(TempFolder::Read(folder / "to/x/y/f"), "1");
    EXPECT_EQ(TempFolder::Read(folder / "to/g"), "2");
    EXPECT_TRUE(DirCopy(folder / "missing", folder / "empty"));
    EXPECT_TRUE(DirExists(folder / "empty"));
    EXPECT_FALSE(DirCopy(folder / "from", folder / "keep"));

    EXPECT_FALSE(DirDelete(folder / "to", false));
    EXPECT_TRUE(DirDelete(folder / "to", true));
    EXPECT_TRUE(DirDelete(folder / "from", true));
    EXPECT_TRUE(DirDelete(folder / "from", true)) << "gone already";
    EXPECT_FALSE(DirDelete(folder / "keep", true)) << "a file";
    EXPECT_EQ(DirList(folder.Path()), (Names{"empty", "keep"}));
    EXPECT_TRUE(DirList(folder / "none").empty());
    EXPECT_FALSE(PathCreate(folder / "keep/sub"));
}

TEST(Directory, DiskFreeTellsAMissingPathApart) {
    std::uint64_t bytes = 0;
    EXPECT_EQ(DiskFree("/", bytes), 0U);
    EXPECT_GT(bytes, 0U);
    EXPECT_EQ(DiskFree("/no/such/place", bytes), 3U);
}

TEST(Path, SplitCompleteAndSafeElements) {
    const std::tuple<const char*, const char*, const char*> splits[] = {
        {"/a/b.c", "/a/", "b.c"}, {"b", "", "b"}, {"a\\b", "a\\", "b"}, {"/a/", "/a/", ""}, {"", "", ""}};
    for (const auto& [path, folder, name] : splits) {
        KelString gotFolder, gotName = path;
        SplitPath(gotName, gotFolder, gotName);  // a result may be the input
        EXPECT_EQ(gotFolder, folder);
        EXPECT_EQ(gotName, name);
    }
    EXPECT_EQ(CompletePath("/a//b/./../c"), "/a/c");
    EXPECT_EQ(CompletePath("/../.."), "/");
    EXPECT_EQ(CompletePath("/a/b/"), "/a/b/");
    EXPECT_EQ(CompletePath("x/../y"), std::filesystem::current_path().string() + "/y");

    EXPECT_TRUE(IsSafePathElement("..."));
    EXPECT_TRUE(IsSafePathElement(KelString(255, 'a')));
    EXPECT_TRUE(IsSafePathElement("\xC3\xA4 %#?'"));
    for (const KelString& bad :
         {KelString(), KelString("."), KelString(".."), KelString("a/b"), KelString("a\\b"),
          KelString("a\nb"), KelString("a\0b", 3), KelString(256, 'a')})
        EXPECT_FALSE(IsSafePathElement(bad)) << bad;
}

TEST(Checksum, KnownDigestsAcrossReadPieces) {
    // RFC 1321, FIPS 180-4
    EXPECT_EQ(TextMd5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(TextMd5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(TextSha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    const TempFolder folder;
    const KelString content(3'500'000, 'x');
    TempFolder::Write(folder / "a", content);
    KelString digest;
    const UniqueFd fd(::open((folder / "a").c_str(), O_RDONLY));
    ASSERT_EQ(::lseek(fd.Get(), 1000, SEEK_SET), 1000);
    ASSERT_TRUE(FileMd5(fd.Get(), digest));
    EXPECT_EQ(digest, TextMd5(content));
    EXPECT_EQ(::lseek(fd.Get(), 0, SEEK_CUR), 1000) << "the position stays";
    ASSERT_TRUE(FileSha256(folder / "a", digest));
    EXPECT_EQ(digest, TextSha256(content));
    EXPECT_FALSE(FileMd5(folder / "none", digest));
    EXPECT_FALSE(FileMd5(folder.Path(), digest));
    EXPECT_EQ(RandomBytes(33).size(), 33U);
    EXPECT_NE(RandomBytes(32), RandomBytes(32));
    EXPECT_TRUE(EqualInConstantTime("abc", "abc"));
    EXPECT_FALSE(EqualInConstantTime("abc", "abd") || EqualInConstantTime("abc", "ab"));
}

}  // namespace

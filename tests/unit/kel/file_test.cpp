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

class FileTest : public testing::Test {
  protected:
    const TempFolder folder_;
    const KelString a_ = folder_ / "a", b_ = folder_ / "b", c_ = folder_ / "c", none_ = folder_ / "none";
};

TEST_F(FileTest, ReplacingIsAtomicAndLeavesNothingBehind) {
    ASSERT_TRUE(FileWriteText(a_, "one", 0600));
    ASSERT_TRUE(FileWriteText(a_, "two", 0640));
    EXPECT_EQ(std::filesystem::status(a_).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(*FileReadText(a_, 3), "two");
    EXPECT_FALSE(FileReadText(a_, 2)) << "one byte too many";
    EXPECT_EQ(FileReadText(none_, 9).Error().code, 3U);
    EXPECT_FALSE(FileWriteText(none_ + "/a", "x"));
    ASSERT_TRUE(DirCreate(b_));
    EXPECT_FALSE(FileWriteText(b_, "x")) << "a folder is not replaced";
    EXPECT_FALSE(FileReadText(b_, 9));
    EXPECT_EQ(DirList(folder_.Path()), (Names{"a", "b"}));
}

TEST_F(FileTest, CopyRenameAndDelete) {
    KelString content;
    for (int i = 0; i < 700'000; ++i)
        content += static_cast<char>(i * 7 + i / 251);
    TempFolder::Write(a_, content);
    TempFolder::Write(b_, "old");
    EXPECT_FALSE(FileCopy(a_, b_, true));
    EXPECT_EQ(TempFolder::Read(b_), "old");
    ASSERT_TRUE(FileCopy(a_, b_, false));
    EXPECT_TRUE(TempFolder::Read(b_) == content);
    ASSERT_TRUE(FileCopy(a_, c_, true));
    EXPECT_EQ(FileGetSize64(c_), 700'000);
    ASSERT_TRUE(FileCopy("/proc/self/status", folder_ / "p", false)) << "a file that says it has no size";
    EXPECT_GT(FileGetSize64(folder_ / "p"), 0);
    ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
    for (const auto& [from, to] : {std::pair{folder_ / "fifo", none_}, {none_, c_}, {a_, none_ + "/x"}})
        EXPECT_FALSE(FileCopy(from, to, false)) << from;

    ASSERT_TRUE(FileRename(c_, b_));
    EXPECT_FALSE(FileRename(c_, b_)) << "gone";
    EXPECT_FALSE(FileRename(a_, b_, true)) << "would replace";
    ASSERT_TRUE(FileRename(b_, c_, true));
    ASSERT_TRUE(FileCopy(c_, b_, false, folder_.Path()));
    EXPECT_TRUE(TempFolder::Read(b_) == content);
    TempFolder::Write(folder_ / ".kel-stale", "left by a kill");
    EXPECT_TRUE(DirDeleteTempFiles(folder_.Path()));
    for (const KelString& path : {c_, b_, b_})  // the last time, it is gone already
        EXPECT_TRUE(FileDelete(path));
    EXPECT_FALSE(FileDelete(folder_.Path())) << "a folder";
    EXPECT_EQ(FileGetSize64(folder_.Path()), -1);
    EXPECT_EQ(DirList(folder_.Path()), (Names{"a", "fifo", "p"}));
}

TEST_F(FileTest, RenameAcrossFileSystemsCopies) {
    const KelString far = "/dev/shm/kel-test-" + std::to_string(::getpid());
    TempFolder::Write(a_, "content");
    const bool same = ::rename(a_.c_str(), far.c_str()) == 0;
    if (same) FileDelete(far);
    if (same || errno != EXDEV) GTEST_SKIP() << "needs a second file system";
    ASSERT_TRUE(FileRename(a_, far));
    EXPECT_FALSE(FileExists(a_));
    ASSERT_TRUE(FileRename(far, b_));
    EXPECT_FALSE(FileExists(far));
    EXPECT_EQ(TempFolder::Read(b_), "content");
    ASSERT_TRUE(FileCopy(b_, far, true, folder_.Path())) << "the folder for the work is on another one";
    EXPECT_TRUE(FileDelete(far));
    EXPECT_EQ(DirList(folder_.Path()), (Names{"b"}));
}

TEST_F(FileTest, OpenBeneathStaysInside) {
    const KelString root = folder_ / "root";
    ASSERT_TRUE(PathCreate(root + "/sub"));
    TempFolder::Write(root + "/sub/in", "in");
    TempFolder::Write(folder_ / "out", "out");
    for (const auto& [to, link] : {std::pair<KelString, const char*>{"../out", "/leaves"},
                                   {folder_ / "out", "/absolute"},
                                   {"sub/in", "/stays"}})
        ASSERT_EQ(::symlink(to.c_str(), (root + link).c_str()), 0);
    EXPECT_TRUE(FileOpenBeneath(root, "sub/in", O_RDONLY));
    const UniqueFd folder(::open(root.c_str(), O_PATH | O_DIRECTORY));
    EXPECT_TRUE(FileOpenByWalk(folder, "sub//./in", O_RDONLY, 0));
    EXPECT_TRUE(FileOpenByWalk(folder, ".", O_PATH | O_DIRECTORY, 0));
    const UniqueFd made = FileOpenBeneath(root, "sub/new", O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_TRUE(made);
    EXPECT_EQ(::fcntl(made.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    const Names refused = {"../out",        folder_ / "out",          "leaves", "absolute", "stays",
                           "sub/../../out", KelString("sub/in\0x", 8)};
    for (const KelString& name : refused) {
        EXPECT_FALSE(FileOpenBeneath(root, name, O_RDONLY)) << name;
        for (const int flags : {O_RDONLY, O_PATH})
            EXPECT_FALSE(FileOpenByWalk(folder, name, flags, 0)) << name;
    }
}

TEST_F(FileTest, TreesAreCopiedAndDeletedWithoutFollowingLinks) {
    ASSERT_TRUE(PathCreate(a_ + "/x/y/"));
    TempFolder::Write(a_ + "/x/y/f", "1");
    TempFolder::Write(a_ + "/g", "2");
    TempFolder::Write(c_, "a file to keep");
    ASSERT_EQ(::symlink(folder_.Path().c_str(), (a_ + "/link").c_str()), 0);
    ASSERT_TRUE(PathCreate(b_ + "/x"));
    TempFolder::Write(b_ + "/g", "replaced");
    ASSERT_TRUE(DirCopy(a_, b_));
    EXPECT_EQ(TempFolder::Read(b_ + "/x/y/f"), "1");
    EXPECT_EQ(TempFolder::Read(b_ + "/g"), "2");
    EXPECT_TRUE(DirCopy(none_, folder_ / "empty"));
    EXPECT_FALSE(DirCopy(a_, c_));

    EXPECT_FALSE(DirDelete(b_, false));
    for (const KelString& path : {b_, a_, a_})  // the last time, it is gone already
        EXPECT_TRUE(DirDelete(path, true));
    EXPECT_FALSE(DirDelete(c_, true)) << "a file";
    EXPECT_EQ(DirList(folder_.Path()), (Names{"c", "empty"}));
    EXPECT_TRUE(DirList(none_).empty());
    EXPECT_FALSE(PathCreate(c_ + "/sub"));
    std::uint64_t bytes = 0;
    EXPECT_EQ(DiskFree(folder_.Path(), bytes), 0U);
    EXPECT_EQ(DiskFree(none_, bytes), 3U);
}

TEST(Path, SplitCompleteAndSafeElements) {
    for (const auto& [folder, name] :
         {std::pair{"/a/", "b.c"}, {"", "b"}, {"a\\", "b"}, {"/a/", ""}, {"", ""}}) {
        KelString gotFolder, gotName = KelString(folder) + name;
        SplitPath(gotName, gotFolder, gotName);  // a result may be the input
        EXPECT_EQ(gotFolder + "|" + gotName, KelString(folder) + "|" + name);
    }
    for (const auto& [path, complete] :
         {std::pair{"/a//b/./../c", "/a/c"}, {"/../..", "/"}, {"/a/b/", "/a/b/"}})
        EXPECT_EQ(CompletePath(path), complete);
    EXPECT_EQ(CompletePath("x/../y"), std::filesystem::current_path().string() + "/y");

    for (const KelString& good : Names{"...", KelString(255, 'a'), "\xC3\xA4 %#?'"})
        EXPECT_TRUE(IsSafePathElement(good)) << good;
    const Names bad = {"", ".", "..", "a/b", "a\\b", "a\nb", KelString("a\0b", 3), KelString(256, 'a')};
    for (const KelString& element : bad)
        EXPECT_FALSE(IsSafePathElement(element)) << element;
}

TEST_F(FileTest, KnownDigestsAcrossReadPieces) {
    // RFC 1321, FIPS 180-4
    EXPECT_EQ(TextMd5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(TextSha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(JoinedSha256({"a", "", "bc"}), TextSha256("abc"));
    EXPECT_EQ(HmacSha256("Jefe", "what do ya want for nothing?"),  // RFC 4231
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    const KelString content(3'500'000, 'x');
    TempFolder::Write(a_, content);
    KelString digest;
    const UniqueFd fd(::open(a_.c_str(), O_RDONLY));
    ASSERT_EQ(::lseek(fd.Get(), 1000, SEEK_SET), 1000);
    Md5Digest pieces;
    pieces.Add(content.substr(0, 7));
    ASSERT_TRUE(pieces.AddFile(fd.Get(), 7));
    EXPECT_EQ(pieces.Text(), TextMd5(content));
    EXPECT_EQ(::lseek(fd.Get(), 0, SEEK_CUR), 1000) << "the position stays";
    ASSERT_TRUE(FileSha256(a_, digest));
    EXPECT_EQ(digest, TextSha256(content));
    EXPECT_FALSE(FileMd5(none_, digest));
    EXPECT_FALSE(FileMd5(folder_.Path(), digest));
    EXPECT_NE(RandomBytes(32), RandomBytes(32));
    EXPECT_TRUE(EqualInConstantTime("abc", "abc"));
    EXPECT_FALSE(EqualInConstantTime("abc", "abd") || EqualInConstantTime("abc", "ab"));
}

}  // namespace

#include "filestore/module/orphans.h"

#include "filestore/db/information_table.h"
#include "filestore/file_store_fixture.h"
#include "kelcore/left_overs.h"

namespace {

struct OrphanTest : StoreTest {
    void SearchAfter(int days) {
        search_.RunWhenDue(std::time(nullptr) + days * std::int64_t{86400}, [] { return false; });
    }
    static auto CountOf(const Texts& paths) { return std::count_if(paths.begin(), paths.end(), FileExists); }
    OrphanSearch search_;
};

TEST_F(OrphanTest, OldContentWithoutARowIsListedAndRemovedOnRequestOnly) {
    const Texts named = {InStore("downstream/t/l/c/held"), InStore("upstream/t/l/c/sent"),
                         InStore("downstream/external")};
    const Texts orphans = {InStore("downstream/t/l/other/held"), InStore("downstream/t/l/c/.kel-part"),
                           InStore("upstream/t/l/c/from-G/sent"), InStore("upstream/t/l/c/alone")};
    AddStored(kDown, "held", "AVAILABLE");
    AddStored(kUp, "sent", "UPLOADING");
    AddFile(kUp, "e", "AVAILABLE", KelFormat("ExternalFile = 1, FilePath = '%S'", named[2]));
    for (const KelString& path : {named[2], orphans[0], orphans[1], orphans[2], orphans[3]})
        WriteFile(path, "content");
    NoteStoreIsKnown(std::time(nullptr));
    for (const auto& [days, removes, unknown, left] : Table<int, const char*, const char*, int>{
             {0, "true", "0", 4},  // the databases are new
             {3, "false", "0", 4},
             {4, "true", "1", 2},  // the upstream database is to be completed from the store
             {5, "true", "0", 0}}) {
        SCOPED_TRACE(days);
        SetIni("FileStore", "RemoveOrphans", removes);
        filestore::WriteInformation(filestore::kUnknownFilesField, unknown, kUp);
        SearchAfter(days);
        EXPECT_EQ(CountOf(orphans), left);
        EXPECT_EQ(CountOf(named), 3);
    }
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "2 files in the store's folder upstream"));
}

TEST_F(OrphanTest, FoldersOfOtherModulesAreSearchedForAsLongAsTheySaySo) {
    const Texts files = {InStore("work/old"), InStore("packages/l/left"), InStore("packages/l/needed")};
    for (const KelString& path : files)
        WriteFile(path, "content");
    {
        const KelLeftOverFolder work(InStore("work"));
        const KelLeftOverFolder packages(InStore("packages"), [&files](const KelString& path, bool removes) {
            if (removes && path == files[1]) FileDelete(path);
            return path == files[1];
        });
        for (const auto& [days, removes, left] :
             Table<int, const char*, int>{{0, "true", 3}, {3, "false", 3}, {5, "true", 1}}) {
            SetIni("FileStore", "RemoveOrphans", removes);
            SearchAfter(days);
            EXPECT_EQ(CountOf(files), left) << days;
        }
    }
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "/work (0 MiB) belong to no row"), 2);
    WriteFile(files[0], "content");
    SearchAfter(9);
    EXPECT_TRUE(FileExists(files[0]) && FileExists(files[2]));
}

TEST_F(OrphanTest, RowsWhoseContentIsMissingAreReported) {
    AddFile(kDown, "gone down", "AVAILABLE");
    AddFile(kUp, "gone up", "UPLOADING");
    AddStored(kDown, "here", "AVAILABLE");
    AddFile(kDown, "wanted", "DOWNLOADING");
    SearchAfter(0);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "The content of t/l/gone"), 2);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "The content of"), 2);
}

}  // namespace

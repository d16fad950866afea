#include "filestore/module/orphans.h"

#include "filestore/db/information_table.h"
#include "filestore/file_store_fixture.h"

namespace {

struct OrphanTest : StoreTest {
    /// A search `days` from now.
    void SearchAfter(int days) {
        search_.RunWhenDue(std::time(nullptr) + days * std::int64_t{86400}, [] { return false; });
    }
    OrphanSearch search_;
};

TEST_F(OrphanTest, OldContentWithoutARowIsListedAndRemovedOnRequestOnly) {
    const KelString inSource = InStore("upstream/t/l/c/from-G/sent"), alone = InStore("upstream/t/l/c/alone");
    const std::map<KelString, bool> isOrphan = {{InStore("downstream/t/l/c/held"), false},
                                                {InStore("upstream/t/l/c/sent"), false},
                                                {InStore("downstream/external"), false},
                                                {InStore("downstream/t/l/other/held"), true},
                                                {InStore("downstream/t/l/c/.kel-part"), true},
                                                {inSource, true},
                                                {alone, true}};
    AddStored(kDown, "held", "AVAILABLE");
    AddStored(kUp, "sent", "UPLOADING");
    AddFile(kUp, "e", "AVAILABLE", "ExternalFile = 1, FilePath = '" + InStore("downstream/external") + "'");
    for (const auto& [path, orphan] : isOrphan)
        WriteFile(path, "content");
    const auto check = [&isOrphan](const auto& isThere) {
        for (const auto& [path, orphan] : isOrphan)
            EXPECT_EQ(FileExists(path), isThere(path, orphan)) << path;
    };
    const auto all = [](const KelString&, bool) { return true; };
    filestore::WriteInformation(filestore::kUnknownFilesField, "0", kUp);
    SetIni("FileStore", "RemoveOrphans", "true");
    SearchAfter(0);
    check(all);  // the databases are new
    SetIni("FileStore", "RemoveOrphans", "false");
    SearchAfter(3);
    check(all);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "2 files in the store's folder upstream"));
    SetIni("FileStore", "RemoveOrphans", "true");
    filestore::WriteInformation(filestore::kUnknownFilesField, "1", kUp);
    SearchAfter(4);
    check([&](const KelString& path, bool orphan) { return !orphan || path == inSource || path == alone; });
    filestore::WriteInformation(filestore::kUnknownFilesField, "0", kUp);
    SearchAfter(5);
    check([](const KelString&, bool orphan) { return !orphan; });
}

TEST_F(OrphanTest, RowsWhoseContentIsMissingAreReported) {
    for (int i = 0; i < 60; ++i)
        AddFile(i % 2 == 0 ? kDown : kUp, "gone" + std::to_string(i), i % 2 == 0 ? "AVAILABLE" : "UPLOADING");
    AddStored(kDown, "here", "AVAILABLE");
    AddFile(kDown, "wanted", "DOWNLOADING");
    SearchAfter(0);
    for (const auto& [name, isMissing] :
         Table<KelString, bool>{{"gone0", true}, {"gone59", true}, {"here", false}, {"wanted", false}})
        EXPECT_EQ(HasLogged(KelDebugLevel::Warning, "The content of t/l/" + name + " is missing"), isMissing);
}

}  // namespace

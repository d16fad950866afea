#include "filestore/up/lost_store.h"
#include "filestore/db/files_table.h"
#include "filestore/db/information_table.h"
#include "filestore/file_store_fixture.h"
#include "filestore/module/cleanup_thread.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/push_thread.h"

namespace {

/// A device whose upstream database, or that of its parent, was lost.
struct LostStoreTest : StoreTest {
    LostStoreTest() {
        relayValues = With(relayValues, {{"ParentGuid", kParentGuid}});
    }
    static void Clean() { Exposed<FileStoreDeleteThread>().DoWork(); }
    void AnswerWithDatabase(const KelString& id) {
        AnswerAsParent(0, Make({{"UpstreamDatabase", id}, {"FileURL", "/u"}, {"ContentHeld", true}}));
    }
    static KelContainer Repeated() {
        return From(With(Offer("t", TextMd5("abc")), {{"Upstream", true},
                                                      {"Repeated", true},
                                                      {"FileSize", std::int64_t{3}},
                                                      {"SourceDevice", kChild}}),
                    "127.0.1.9");
    }
};

TEST_F(LostStoreTest, SentFilesAreOfferedAgainOnlyWhenTheSameParentHasAnotherDatabase) {
    AddStored(kUp, "sent", "AVAILABLE");
    AddStored(kUp, "packed", "PACKEDFILE");
    AddStored(kUp, "archive", "AVAILABLE", "FileType = 'FileStorePackedFiles'");
    AddStored(kUp, "handled", "TOBEHANDLED");
    for (const auto& [id, guid, again] :
         Table<const char*, KelString, Texts>{{"1", kParentGuid, {}},
                                              {"1", kParentGuid, {}},
                                              {"2", kParentGuid, {"sent", "packed"}},
                                              {"", kParentGuid, {}},
                                              {"3", kGuid, {}}}) {
        SCOPED_TRACE(id);
        relayValues = With(relayValues, {{"ParentGuid", guid}});
        AnswerWithDatabase(id);
        Clean();
        EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), again);
        FileStore::fConcatFiles = FileStore::fAutoConcat = true;  // what the parent holds is not packed
        bool reached = false;
        FileStorePushThread().SendFile(reached, false);
        FileStore::fConcatFiles = FileStore::fAutoConcat = false;
        EXPECT_EQ(Names(kUp, "TOBEUPLOADED"), Texts());
        EXPECT_EQ(Names(kUp, "UPLOADING"), Texts());
        EXPECT_EQ(RequestedNames("PUT"), Texts());
    }
}

TEST_F(LostStoreTest, RepeatedOfferNeedsContentOnlyWhereNoneOrOtherIsHeld) {
    for (const auto& [status, content, isHeld, after] :
         Table<const char*, const char*, bool, const char*>{{"AVAILABLE", "abc", true, "AVAILABLE"},
                                                            {"TOBEUPLOADED", "abc", true, "TOBEUPLOADED"},
                                                            {"", "abc", true, "TOBEUPLOADED"},
                                                            {"", "abx", false, "RECEIVING"},
                                                            {"", "", false, "RECEIVING"}}) {
        const auto trace = Begin(KelString(status) + content);
        const KelString path = FileStore::StorePath(kUp, {"t", "l", "n", TextMd5("abc")});
        FileDelete(path);
        if (*content != '\0') WriteFile(path, content);
        if (*status != '\0')
            Set(kUp, AddFile(kUp, "n", status),
                KelFormat("FileChecksum = '%S', SourceDevice = '%s', FilePath = '%S'", TextMd5("abc"), kChild,
                          path));
        EXPECT_EQ(Ask("FileStoreReceiveFile", Repeated()).GetBool("ContentHeld"), isHeld);
        Exposed<FileStoreCallbackThread>().DoWork();
        EXPECT_EQ(OnlyFields(kUp), after);
    }
}

TEST_F(LostStoreTest, FilesOfALostDatabaseAreFoundInTheStore) {
    const auto store = [](const KelString& content, const KelString& source) {
        const FileKey key{"t", "l", content, TextMd5("abc")};
        WriteFile(FileStore::strStorageLocationToUse + filestore::StoredPath(kUp, key, source), content);
    };
    store("abc", "");
    store("damaged", "");
    store("abc", filestore::SourceFolder(kChild));
    FileStore::eKeepCopyMask = 2;
    Clean();
    EXPECT_EQ(Count(kUp), "0") << "children of a relay come first";
    FileStore::eKeepCopyMask = 4;
    Clean();
    EXPECT_EQ(OnlyFields(kUp, "FileName, FileStatus, SourceDevice, FileSize, Repeated"),
              KelString("abc|TOBEHANDLED|") + kOwnUrl + "|3|1");
    DeleteRows();
    Clean();
    EXPECT_EQ(Count(kUp), "0") << "found once only";
}

}  // namespace

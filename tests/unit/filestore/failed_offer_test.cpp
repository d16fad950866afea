#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

/// Offers of this device's files that the database does not take.
struct FailedOfferTest : StoreTest {
    static KelString Stored(Side side) { return FileStore::StorePath(side, {"t", "l", "n", TextMd5("abc")}); }
};

TEST_F(FailedOfferTest, LeavesNothingInTheStoreButTheOnlyCopy) {
    for (const Side side : {kUp, kDown})
        for (const char* value : {"CopyPath", "MovePath"})
            for (const bool isOnlyCopy : {false, true}) {
                const auto trace = Begin(KelFormat("%s %s %d", filestore::SideName(side), value, isOnlyCopy));
                const KelString source = Root() + "/source";
                WriteFile(isOnlyCopy ? Stored(side) : source, "abc");
                const KelString changes = KelFormat("%s ON Files WHEN NEW.FileStatus <> #RECEIVING#",
                                                    side == kUp ? "INSERT" : "UPDATE");
                const auto full = Refuse(Database(side), changes);
                EXPECT_EQ(Receive(Offer("t", TextMd5("abc")), {{"Upstream", side == kUp}, {value, source}}),
                          1U);
                EXPECT_EQ(Count(side), "0");
                EXPECT_EQ(Content(Stored(side)), isOnlyCopy ? "abc" : "(none)");
                EXPECT_EQ(FileExists(source), !isOnlyCopy);
                FileDelete(Stored(side));
                FileDelete(source);
            }
}

TEST_F(FailedOfferTest, RowThatCouldNotBePutBackIsPutBackLater) {
    const KelString source = MakeFile("source", "abc");
    Fake("IdentityGetValues ()", [this, source](KelContainer& container) {
        container = Make({{"Values", identityValues}});
        WriteFile(source, "changed while it is taken");
        return 0U;
    });
    auto full = Refuse(Database(kDown), "DELETE ON Files");
    EXPECT_EQ(Receive(Offer("t", ""), {{"CopyPath", source}, {"SourceDevice", "any"}}), 1U);
    Exposed<FileStorePullThread> pull;
    pull.DoWork();
    EXPECT_EQ(OnlyFields(kDown), "RECEIVING");
    full.reset();
    pull.DoWork();
    EXPECT_EQ(Count(kDown), "0");
}

}  // namespace

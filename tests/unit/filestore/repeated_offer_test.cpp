#include "filestore/db/files_table.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

/// Offers that go down once more after a store has lost its database.
struct RepeatedOfferTest : StoreTest {
    static KelContainer Announcement(bool repeated, const Texts& targets) {
        return From(With(Offer("t", "c"), {{"Repeated", repeated},
                                           {"FileURL", "/u"},
                                           {"FileSize", std::int64_t{1}},
                                           {"DevicePath", TargetTree(targets)}}),
                    "127.0.1.1");
    }
    static KelString ChildPath() { return KelString(kChild) + "/m/127.0.1.9/255.0.0.0"; }
};

TEST_F(RepeatedOfferTest, AvailableFileGetsTheDevicesBelowAsTargetsAndIsAcknowledgedAgain) {
    for (const auto& [repeated, after] :
         Table<bool, const char*>{{false, "AVAILABLE|1|0|7"}, {true, "AVAILABLE|0|1|7"}}) {
        const auto trace = Begin(repeated ? "repeated" : "plain");
        const std::uint64_t fileId = AddStored(kDown, "n", "AVAILABLE", "Acknowledged = 1, KeepCopy = 7");
        for (int times = 0; times < 2; ++times)
            Accept(Announcement(repeated, {kOwnPathName, ChildPath()}));
        EXPECT_EQ(Fields(kDown, fileId, "FileStatus, Acknowledged, Repeated, KeepCopy"), after);
        EXPECT_EQ(Rows(kDown, "SELECT DeviceGUID FROM Targets"), repeated ? Texts{ChildPath()} : Texts{});
    }
}

TEST_F(RepeatedOfferTest, UnknownFileIsDownloadedForAllTargetsAndAnnouncedAsRepeated) {
    Accept(Announcement(true, {kOwnPathName, ChildPath()}));
    EXPECT_EQ(OnlyFields(kDown, "FileStatus, Repeated"), "DOWNLOADING|1");
    EXPECT_EQ(Count(kDown, "Targets"), "2");
    const TestHttpServer child(TestHttpServer::ActionScript(0));
    Rows(kDown, "UPDATE Targets SET DeviceGUID = '" + child.HostAndPort() + "/G' WHERE DeviceGUID <> ''");
    filestore::UpdateFileStatus(kDown, 1, filestore::kStatusAvailable, filestore::NextTry::AtOnce);
    filestore::SetAcknowledged(1);
    FileStore::threadNotify.NotifyTargets();
    EXPECT_TRUE(OnlyCallTo(child, "FileStoreReceiveFile").GetBool("Repeated"));
}

TEST_F(RepeatedOfferTest, LocalOneLeavesWhatIsKnownOfTheFile) {
    const KelString source = MakeFile("source", "n");
    const std::uint64_t fileId =
        AddStored(kDown, "n", "AVAILABLE", "Acknowledged = 1, Bypass = 1, KeepCopy = 7");
    Accept(With(Offer("t", "c"),
                {{"FilePath", source}, {"Repeated", true}, {"DevicePath", TargetTree({ChildPath()})}}));
    EXPECT_EQ(Fields(kDown, fileId, "FileStatus, Acknowledged, Bypass, KeepCopy, ExternalFile"),
              "AVAILABLE|1|1|7|0");
    EXPECT_EQ(Rows(kDown, "SELECT DeviceGUID FROM Targets"), Texts{ChildPath()});
}

}  // namespace

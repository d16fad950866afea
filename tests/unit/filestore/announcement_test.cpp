#include <limits>

#include "filestore/file_store_fixture.h"
#include "filestore/state/settings.h"

namespace {

constexpr const char* kParent = "127.0.1.1";
constexpr const char* kX = "127.0.1.8:1611/0A1B0000-0000-4000-8000-0000000000C1";
constexpr const char* kY = "127.0.1.9:1611/0A1B0000-0000-4000-8000-0000000000C2";
constexpr const char* kZ = "127.0.1.10:1611/0A1B0000-0000-4000-8000-0000000000C3";

class KnownFileTest : public StoreTest {
  protected:
    static KelString PathName(const char* device) { return KelString(device) + "/02/127.0.1.8/255.0.0.0"; }
    static KelContainer Node(const KelString& name, const KelContainer& below = {}) {
        return Make({{name, below}});
    }
    static unsigned int Announce(const KelContainer& children) {
        return Receive(From(Offer(), kParent), {{"FileURL", "/FileStore/downstream/t/l/c/n"},
                                                {"FileSize", 3},
                                                {"DevicePath", Node(kOwnPathName, children)}});
    }
    static Texts Targets() {
        return Rows(kDown, "SELECT DeviceGUID, DevicePath, LastNotifyTime FROM Targets ORDER BY TargetId");
    }
    static KelString Row(const KelString& name, const KelContainer& below) {
        return name + "|" + Node(name, below).SaveToXML() + "|0";
    }
};

/// A relay that is a target itself is named once more among the devices below it.
TEST_F(KnownFileTest, AnnouncementAddsItsTargetsToThoseOfAFileThatIsNotHere) {
    const KelString x = PathName(kX), y = PathName(kY), z = PathName(kZ);
    const KelContainer leaf, both = Make({{x, leaf}, {y, leaf}});
    for (const auto& [name, known, announced, targets] :
         Table<const char*, KelContainer, KelContainer, Texts>{
             {"another device", Node(x), Node(y), {Row(x, leaf), Row(y, leaf)}},
             {"the same device", Node(x), Node(x), {Row(x, leaf)}},
             {"below the same device",
              Node(x, Node(y)),
              Node(x, Node(z)),
              {Row(x, Make({{y, leaf}, {z, leaf}}))}},
             {"the device itself, then below it", Node(x), Node(x, Node(y)), {Row(x, both)}},
             {"below the device, then itself",
              Node(x, Node(y)),
              Node(x),
              {Row(x, Make({{y, leaf}, {x, leaf}}))}},
             {"deeper",
              Node(x, Node(y, Node(z))),
              Node(x, Node(y)),
              {Row(x, Node(y, Make({{z, leaf}, {y, leaf}})))}}}) {
        const auto trace = Begin(name);
        EXPECT_EQ(Announce(known), kKelOk);
        Rows(kDown, "UPDATE Files SET Acknowledged = 1, FileStatus = #TOBEREQUESTED#");
        Rows(kDown, "UPDATE Targets SET LastNotifyTime = 2000000000");
        EXPECT_EQ(Announce(announced), kKelOk);
        Rows(kDown,
             "UPDATE Targets SET LastNotifyTime = 0 WHERE LastNotifyTime = 2000000000 AND "
             "DeviceGUID <> '" +
                 announced.GetName(0) + "'");
        EXPECT_EQ(Targets(), targets);
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, Acknowledged"), "DOWNLOADING|0");
    }
}

TEST_F(KnownFileTest, DeviceThatRequestedTheFileAndTheSameInATreeShareARow) {
    Ask("FileStoreRequestFile", With(Offer(), {{"DeviceGUID", kX}}));
    const KelString id = Cell(kDown, "SELECT TargetId FROM Targets");
    EXPECT_EQ(Announce(Make({{PathName(kX), Node(PathName(kY))}, {PathName(kZ), KelContainer()}})), kKelOk);
    EXPECT_EQ(Targets(), (Texts{Row(PathName(kX), Node(PathName(kY))), Row(PathName(kZ), {})}));
    EXPECT_EQ(Cell(kDown, "SELECT MIN(TargetId) FROM Targets"), id);
}

TEST_F(KnownFileTest, RowAndTargetsChangeTogetherOrNotAtAll) {
    EXPECT_EQ(Announce(Node(PathName(kX))), kKelOk);
    Rows(kDown, "UPDATE Files SET FileStatus = #MISSING#");
    const KelString before = Everything();
    for (const char* refused : {"INSERT ON Targets", "UPDATE ON Files"}) {
        const auto refusal = Refuse(Database(kDown), refused);
        EXPECT_NE(Announce(Node(PathName(kY))), kKelOk) << refused;
        EXPECT_EQ(Everything(), before) << refused;
    }
    EXPECT_EQ(Announce(Node(PathName(kY))), kKelOk);
    EXPECT_EQ(Count(kDown, "Targets"), "2");
}

/// Making the targets asks other modules, which takes time.
TEST_F(KnownFileTest, RowThatIsRemovedMeanwhileIsMadeAnewWithItsTargets) {
    EXPECT_EQ(Announce(Node(PathName(kX))), kKelOk);
    Fake("WakeOnLanAddSubnet ()", [](KelContainer&) {
        DeleteRows();
        return 0U;
    });
    const KelString moved = KelString(kY) + "/02/127.0.1.77/255.0.0.0";
    EXPECT_EQ(Announce(Node(moved)), kKelOk);
    EXPECT_EQ(Targets(), Texts{Row(moved, {})});
}

TEST_F(KnownFileTest, AcknowledgementThatCannotBeRecordedFails) {
    AddTarget(AddFile(kDown, "n", "AVAILABLE"), 1, PathName(kX));
    const KelContainer call = With(Offer(), {{"DeviceGUID", kX}});
    {
        const auto refusal = Refuse(Database(kDown), "DELETE ON Targets");
        Ask("FileStoreAcknowledgeFile", call, kKelErrorInternal);
    }
    Ask("FileStoreAcknowledgeFile", call);
    EXPECT_EQ(Count(kDown, "Targets"), "0");
}

TEST_F(KnownFileTest, LargestTimeOutsNeitherWrapNorHoldBackWhatIsDueAtOnce) {
    constexpr unsigned int kLargest = std::numeric_limits<unsigned int>::max();
    for (const unsigned int seconds : {300U, 2147483647U, kLargest})
        for (int i = 0; i < 50; ++i) {
            const unsigned int timeout = FileStore::GetRandomTimeout(seconds);
            EXPECT_GT(timeout, seconds / 2);
            EXPECT_GT(FileStoreDueBefore(timeout), 0);
        }
}

}  // namespace

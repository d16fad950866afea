#include "filestore/db/files_table.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

/// The path name of a device, by a number of two digits.
KelString Device(int number) {
    return KelFormat("127.0.1.%d:1611/0A1B0000-0000-4000-8000-0000000000%d/02-00/127.0.1.%d/255.255.0.0",
                     number, number, number);
}

/// The targets that the tree of an announcement gives a file.
struct TargetTest : StoreTest {
    static KelContainer Node(const KelString& name, const KelContainer& below = {}) {
        return Make({{name, below}});
    }
    static unsigned int Announce(const KelContainer& children) {
        return Receive(From(Offer(), "127.0.1.1"), {{"FileURL", "/FileStore/downstream/t/l/c/n"},
                                                    {"FileSize", 3},
                                                    {"DevicePath", Node(kOwnPathName, children)}});
    }
    static void Process(KelContainer tree) { FileStore::ProcessFileTargetList(5, 1, tree); }
    static Texts TargetTrees() { return Targets("DeviceGUID, DevicePath, LastNotifyTime"); }
    static KelString Row(const KelString& name, const KelContainer& below) {
        return name + "|" + Node(name, below).SaveToXML() + "|0";
    }
    const KelString x_ = Device(21), y_ = Device(22), z_ = Device(23);
    const KelContainer leaf_;
};

TEST_F(TargetTest, OnlyATreeOfThisDeviceCountsAndItsEmptyTopMakesItTheTarget) {
    Process(Node(x_, Node(y_)));
    Process({});
    EXPECT_EQ(Count(kDown, "Targets"), "0");
    Process(TargetTree({}));
    EXPECT_EQ(Targets("FileId, DeviceGUID, DevicePath, LastNotifyTime, WakeUpDevice"), Texts{"5|||0|1"});
}

TEST_F(TargetTest, EachChildGetsItsSubTree) {
    const KelString odd = "not a path name";
    Process(Node(kOwnPathName, Make({{x_, Node(y_)}, {kOwnPathName, leaf_}, {odd, leaf_}})));
    const KelString own = "|" + Node(kOwnPathName).SaveToXML() + "|0";
    EXPECT_EQ(TargetTrees(), (Texts{Row(x_, Node(y_)), own, Row(odd, leaf_)}));
}

TEST_F(TargetTest, FilesForTheSameSubTreeAreSpreadOverTime) {
    const std::int64_t now = std::time(nullptr);
    // the LastNotifyTime that is found (-1: no row), and the range of the new one
    for (const auto& [latest, from, to] : Table<std::int64_t, std::int64_t, std::int64_t>{
             {-1, 0, 0}, {0, 0, 0}, {now - 500, now, now + 10}, {now + 1000, now + 1060, now + 1060}}) {
        DeleteRows();
        if (latest >= 0) AddTarget(4, 999, Node(x_).SaveToXML(), latest);
        Process(TargetTree({x_}));
        const auto next =
            std::stoll(Cell(kDown, "SELECT LastNotifyTime + 0.0 FROM Targets WHERE FileId = 5"));
        EXPECT_TRUE(next >= from && next <= to) << next - now;
    }
}

TEST_F(TargetTest, WakeOnLanDataAreAnnouncedWhenNewOrChanged) {
    FakeResult("WakeOnLanAddSubnet ()", 0);
    for (int repetition = 0; repetition < 2; ++repetition)
        Process(TargetTree({x_, "not a path name"}));
    EXPECT_EQ(Read(OnlyCallOf("WakeOnLanAddSubnet"),
                   "WakeOnLanAgentGuid WakeOnLanDeviceIPAddr WakeOnLanDeviceAgentPort "
                   "WakeOnLanDeviceNetworkMask"),
              KelFormat("0A1B0000-0000-4000-8000-000000000021|%d|1611|%d", 0x7F000115, -0x10000));
    KelString moved = x_;
    Process(TargetTree({moved.replace(moved.find(":1611"), 5, ":1700")}));
    EXPECT_EQ(CallsOf("WakeOnLanAddSubnet").size(), 2U);
}

/// A relay that is a target itself is named once more among the devices below it.
TEST_F(TargetTest, AnnouncementAddsItsTargetsToThoseOfAFileThatIsNotHere) {
    const auto both = [this](const KelString& first, const KelString& second) {
        return Make({{first, leaf_}, {second, leaf_}});
    };
    for (const auto& [name, known, announced, targets] :
         Table<const char*, KelContainer, KelContainer, Texts>{
             {"another device", Node(x_), Node(y_), {Row(x_, leaf_), Row(y_, leaf_)}},
             {"the same device", Node(x_), Node(x_), {Row(x_, leaf_)}},
             {"below it", Node(x_, Node(y_)), Node(x_, Node(z_)), {Row(x_, both(y_, z_))}},
             {"itself, then below", Node(x_), Node(x_, Node(y_)), {Row(x_, both(x_, y_))}},
             {"below, then itself", Node(x_, Node(y_)), Node(x_), {Row(x_, both(y_, x_))}},
             {"deeper",
              Node(x_, Node(y_, Node(z_))),
              Node(x_, Node(y_)),
              {Row(x_, Node(y_, both(z_, y_)))}}}) {
        const auto trace = Begin(name);
        EXPECT_EQ(Announce(known), kKelOk);
        Rows(kDown, "UPDATE Files SET Acknowledged = 1, FileStatus = #TOBEREQUESTED#");
        Rows(kDown, "UPDATE Targets SET LastNotifyTime = 2000000000");
        EXPECT_EQ(Announce(announced), kKelOk);
        Rows(kDown,
             "UPDATE Targets SET LastNotifyTime = 0 WHERE LastNotifyTime = 2000000000 AND DeviceGUID <> '" +
                 announced.GetName(0) + "'");
        EXPECT_EQ(TargetTrees(), targets);
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, Acknowledged"), "DOWNLOADING|0");
    }
}

TEST_F(TargetTest, DeviceThatRequestedTheFileAndTheSameInATreeShareARow) {
    Ask("FileStoreRequestFile", With(Offer(), {{"DeviceGUID", x_.substr(0, x_.find("/02-00"))}}));
    const KelString id = Targets().at(0);
    EXPECT_EQ(Announce(Make({{x_, Node(y_)}, {z_, leaf_}})), kKelOk);
    EXPECT_EQ(TargetTrees(), (Texts{Row(x_, Node(y_)), Row(z_, leaf_)}));
    EXPECT_EQ(Targets().at(0), id);
}

TEST_F(TargetTest, RowAndTargetsChangeTogetherOrNotAtAll) {
    EXPECT_EQ(Announce(Node(x_)), kKelOk);
    Rows(kDown, "UPDATE Files SET FileStatus = #MISSING#");
    const KelString before = Everything();
    for (const char* refused : {"INSERT ON Targets", "UPDATE ON Files"}) {
        const auto refusal = Refuse(kDown, refused);
        EXPECT_NE(Announce(Node(y_)), kKelOk) << refused;
        EXPECT_EQ(Everything(), before) << refused;
    }
    EXPECT_EQ(Announce(Node(y_)), kKelOk);
    EXPECT_EQ(Count(kDown, "Targets"), "2");
}

/// Making the targets asks other modules, which takes time.
TEST_F(TargetTest, RowThatIsRemovedMeanwhileIsMadeAnewWithItsTargets) {
    EXPECT_EQ(Announce(Node(x_)), kKelOk);
    Fake("WakeOnLanAddSubnet ()", [](KelContainer&) {
        DeleteRows();
        return 0U;
    });
    static int number = 30;
    const KelString unknown = Device(++number);  // other modules are asked about new devices only
    EXPECT_EQ(Announce(Node(unknown)), kKelOk);
    EXPECT_EQ(TargetTrees(), Texts{Row(unknown, leaf_)});
}

}  // namespace

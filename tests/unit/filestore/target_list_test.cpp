#include "filestore/file_store_fixture.h"

namespace {

struct TargetListTest : StoreTest {
    static KelString PathName(int number) {
        return KelFormat("127.0.1.%d:1611/0A1B0000-0000-4000-8000-00000000%d/02-00/127.0.1.%d/255.255.0.0",
                         number, 1000 + number, number);
    }
    static KelContainer Node(const KelString& name, const KelContainer& below = {}) {
        return Make({{name, below}});
    }
    static void Process(KelContainer tree) { FileStore::ProcessFileTargetList(5, 1, tree); }
};

TEST_F(TargetListTest, OnlyATreeOfThisDeviceCountsAndItsEmptyTopMakesItTheTarget) {
    Process(Node(PathName(20), Node(PathName(21))));
    Process({});
    EXPECT_EQ(Count(kDown, "Targets"), "0");
    Process(TargetTree({}));
    EXPECT_EQ(Targets("FileId, DeviceGUID, DevicePath, LastNotifyTime, WakeUpDevice"), Texts{"5|||0|1"});
}

TEST_F(TargetListTest, EachChildGetsItsSubTree) {
    const KelContainer grandChildren = Node(PathName(32));
    Process(Node(kOwnPathName, Make({{PathName(30), grandChildren},
                                     {kOwnPathName, KelContainer()},
                                     {"not a path name", KelContainer()}})));
    EXPECT_EQ(Targets("DeviceGUID, DevicePath"),
              (Texts{PathName(30) + "|" + Node(PathName(30), grandChildren).SaveToXML(),
                     "|" + Node(kOwnPathName).SaveToXML(),
                     "not a path name|" + Node("not a path name").SaveToXML()}));
}

TEST_F(TargetListTest, FilesForTheSameSubTreeAreSpreadOverTime) {
    const std::int64_t now = std::time(nullptr);
    // the LastNotifyTime that is found (-1: no row), and the range of the new one
    for (const auto& [latest, from, to] : Table<std::int64_t, std::int64_t, std::int64_t>{
             {-1, 0, 0}, {0, 0, 0}, {now - 500, now, now + 10}, {now + 1000, now + 1060, now + 1060}}) {
        Rows(kDown, "DELETE FROM Targets");
        if (latest >= 0)
            Rows(kDown, KelFormat("INSERT INTO Targets (TargetId, DeviceGUID, LastNotifyTime) VALUES "
                                  "(999, '%S', %ld)",
                                  Node(PathName(40)).SaveToXML(), latest));
        Process(TargetTree({PathName(40)}));
        EXPECT_EQ(
            Cell(kDown, KelFormat("SELECT LastNotifyTime BETWEEN %ld AND %ld FROM Targets WHERE FileId = 5",
                                  from, to)),
            "1");
    }
}

TEST_F(TargetListTest, WakeOnLanDataAreAnnouncedWhenNewOrChanged) {
    FakeResult("WakeOnLanAddSubnet ()", 0);
    for (int repetition = 0; repetition < 2; ++repetition)
        Process(TargetTree({PathName(50), "not a path name"}));
    EXPECT_EQ(Read(OnlyCallOf("WakeOnLanAddSubnet"),
                   "WakeOnLanAgentGuid WakeOnLanDeviceIPAddr WakeOnLanDeviceAgentPort "
                   "WakeOnLanDeviceNetworkMask"),
              KelFormat("0A1B0000-0000-4000-8000-000000001050|%d|1611|%d", 0x7F000132, -0x10000));
    KelString moved = PathName(50);
    moved.replace(moved.find(":1611"), 5, ":1700");
    Process(TargetTree({moved}));
    EXPECT_EQ(CallsOf("WakeOnLanAddSubnet").size(), 2U);
}

}  // namespace

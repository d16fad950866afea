#include <ctime>

#include "filestore/transfer_fixture.h"

namespace {

class TargetListTest : public TransferTest {
  protected:
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
    EXPECT_EQ(Count(Downstream(), "Targets"), "0");
    Process(TargetTree({}));
    EXPECT_EQ(Rows(Downstream(),
                   "SELECT FileId, DeviceGUID, DevicePath, LastNotifyTime, WakeUpDevice FROM Targets"),
              KelVector<KelString>{"5|||0|1"});
}

TEST_F(TargetListTest, EachChildGetsItsSubTree) {
    const KelContainer grandChildren = Node(PathName(32));
    Process(Node(kOwnPathName, Make({{PathName(30), grandChildren},
                                     {kOwnPathName, KelContainer()},
                                     {"not a path name", KelContainer()}})));
    const auto rows = Downstream().Query("SELECT * FROM Targets ORDER BY TargetId");
    ASSERT_EQ(rows->GetRowCount(), 3U);
    EXPECT_EQ(rows->GetString(0, "DeviceGUID"), PathName(30));
    EXPECT_EQ(rows->GetString(1, "DeviceGUID"), "");
    EXPECT_EQ(rows->GetString(2, "DeviceGUID"), "not a path name");
    EXPECT_EQ(rows->GetString(0, "DevicePath"), Node(PathName(30), grandChildren).SaveToXML());
    EXPECT_EQ(rows->GetString(1, "DevicePath"), Node(kOwnPathName).SaveToXML());
}

TEST_F(TargetListTest, FilesForTheSameSubTreeAreSpreadOverTime) {
    const std::int64_t now = std::time(nullptr);
    // the LastNotifyTime that is found (-1: no row), and the range of the new one
    for (const auto& [latest, from, to] : {std::tuple{-1L, 0L, 0L},
                                           {0, 0, 0},
                                           {now - 500, now, now + 10},
                                           {now + 1000, now + 1060, now + 1060}}) {
        Rows(Downstream(), "DELETE FROM Targets");
        if (latest >= 0)
            Rows(Downstream(), KelFormat("INSERT INTO Targets (TargetId, DeviceGUID, LastNotifyTime) VALUES "
                                         "(999, '%S', %ld)",
                                         Node(PathName(40)).SaveToXML(), latest));
        Process(TargetTree({PathName(40)}));
        const std::int64_t time =
            std::stoll(Cell(Downstream(), "SELECT LastNotifyTime FROM Targets WHERE FileId = 5"));
        EXPECT_GE(time, from);
        EXPECT_LE(time, to);
    }
}

TEST_F(TargetListTest, WakeOnLanDataAreAnnouncedWhenNewOrChanged) {
    FakeResult("WakeOnLanAddSubnet ()", 0);
    Process(TargetTree({PathName(50), "not a path name"}));
    Process(TargetTree({PathName(50)}));
    ASSERT_EQ(CallsOf("WakeOnLanAddSubnet").size(), 1U);
    const KelContainer call = CallsOf("WakeOnLanAddSubnet").front();
    EXPECT_EQ(call.GetString("WakeOnLanAgentGuid"), "0A1B0000-0000-4000-8000-000000001050");
    EXPECT_EQ(call.GetInt32("WakeOnLanDeviceIPAddr"), 0x7F000132);
    EXPECT_EQ(call.GetInt32("WakeOnLanDeviceAgentPort"), 1611);
    EXPECT_EQ(static_cast<std::uint32_t>(call.GetInt32("WakeOnLanDeviceNetworkMask")), 0xFFFF0000U);

    KelString moved = PathName(50);
    moved.replace(moved.find(":1611"), 5, ":1700");
    Process(TargetTree({moved}));
    EXPECT_EQ(CallsOf("WakeOnLanAddSubnet").size(), 2U);
}

}  // namespace

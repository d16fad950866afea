#include "modules/transfer_window/transfer_window.h"

#include "module_fixture.h"
#include "on_threads.h"

namespace {

/// A number for each hour of the week, `step` more from one to the next.
std::string Week(int first, int step = 0) {
    std::string text = std::to_string(first);
    for (int hour = 1; hour < 168; ++hour)
        text += " " + std::to_string(first + hour * step);
    return text;
}

class TransferWindowTest : public ModuleFixture {
  protected:
    void SetUp() override {
        Subscribe("TransferWindowCallbackWindowChange", [this](KelContainer*) {
            ++changes_;
            return 0U;
        });
    }

    static bool HasWindow(int direction) { return !Window(direction).IsEmpty(); }
    static KelContainer Window(int direction) {
        KelContainer container = Values({"Direction=" + std::to_string(direction)});
        EXPECT_EQ(Call("TransferWindowCheckWindow", container), 0U);
        return container.GetContainer("Values");
    }
    static unsigned int Set(int direction, const std::string& slots, int type, bool utc = false) {
        return Call("TransferWindowSetWindow",
                    Values({"Direction=" + std::to_string(direction), "Slots=" + slots,
                            "SlotType=" + std::to_string(type),
                            std::string("UseUTCTime=") + (utc ? "true" : "false")}));
    }

    std::atomic<int> changes_ = 0;
};

TEST_F(TransferWindowTest, WindowsComeFromTheIniFileAnUnusableOneLeavesTheOthers) {
    WriteIni("TransferWindow", "[Up]\nSlots = " + Week(0, 1) +
                                   "\nSlotType = 1\nUseUTCTime = true\n"
                                   "[Down]\nSlots = 1 2 3\n[Multicast]\nSlots = 50\nSlotType = 7\n");
    RunningModule<TransferWindow> module;
    ExpectValues(Window(1), {"Slots=" + Week(0, 1), "SlotType=1", "UseUTCTime=true"});
    EXPECT_FALSE(HasWindow(2));
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "section Down"), 1);
    const KelContainer answer = Call("TransferWindowCheckAllWindows");
    const KelContainer& all = answer.GetContainer("Values");
    ASSERT_EQ(all.Count("Direction"), 2U);
    EXPECT_EQ(all.GetInt32("Direction", 0, 0), 1);
    EXPECT_EQ(all.GetInt32("Direction", 0, 1), 3);
    ExpectValues(all.GetContainer("Values", 1), {"Slots=" + Week(50)});
}

TEST_F(TransferWindowTest, ASetWindowIsKeptAndReported) {
    WriteIni("TransferWindow", "; limits of this site\n[Down]\nSlots = 7\n");
    {
        RunningModule<TransferWindow> module;
        EXPECT_EQ(Set(1, " 100 ", 2, true), 0U);
        EXPECT_EQ(Set(2, "", 2), 0U);
        EXPECT_EQ(changes_, 2);
        EXPECT_FALSE(HasWindow(2));
    }
    RunningModule<TransferWindow> module;
    ExpectValues(Window(1), {"Slots=" + Week(100), "UseUTCTime=true"});
    EXPECT_FALSE(HasWindow(2));
    EXPECT_TRUE(TempFolder::Read(root_ / "config/TransferWindow.ini").starts_with("; limits of this site\n"));
    EXPECT_FALSE(std::filesystem::exists(root_ / "config/TransferWindow.ini.new"));
}

TEST_F(TransferWindowTest, UnusableWindowsAreRefusedAndChangeNothing) {
    RunningModule<TransferWindow> module;
    ASSERT_EQ(Set(1, "10", 2), 0U);
    for (const int direction : {0, 4})
        EXPECT_EQ(Set(direction, "1", 2), kKelErrorBadInput) << direction;
    const std::string aNumberShort = Week(0, 1).substr(2), oneTooMany = Week(0, 1) + " 1";
    for (const std::string& slots :
         {aNumberShort, oneTooMany, Week(1) + "\n[Down]", std::string("-1"), std::string("+1"),
          std::string("010"), std::string("0x10"), std::string("fast"), std::string("99999999999999999999")})
        EXPECT_EQ(Set(1, slots, 2), kKelErrorBadInput) << slots;
    for (const auto& [type, tooMuch] :
         {std::pair(0, "1"), {9, "1"}, {3, "18446744073709551615"}, {7, "101"}, {8, "1001"}})
        EXPECT_EQ(Set(1, tooMuch, type), kKelErrorBadInput) << type;
    EXPECT_EQ(Call("TransferWindowSetWindow", Values({"Direction=1"})), kKelErrorBadInput);
    std::filesystem::remove_all(root_ / "config");
    EXPECT_EQ(Set(1, "20", 2), kKelErrorInternal);
    ExpectValues(Window(1), {"Slots=" + Week(10)});
    EXPECT_EQ(changes_, 1);
}

TEST_F(TransferWindowTest, ConcurrentChangesEndInMemoryAsOnDisk) {
    KelContainer last;
    {
        RunningModule<TransferWindow> module;
        OnThreads(4, [](int thread) {
            for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(Set(1 + i % 3, std::to_string(thread * 10 + i), 1 + thread), 0U);
                Window(1);
            }
        });
        last = Call("TransferWindowCheckAllWindows");
    }
    EXPECT_EQ(changes_, 20);
    RunningModule<TransferWindow> module;
    EXPECT_EQ(Call("TransferWindowCheckAllWindows"), last);
}

}  // namespace

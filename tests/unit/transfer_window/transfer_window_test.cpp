#include "modules/transfer_window/transfer_window.h"

#include <thread>

#include "kelcore/error_codes.h"
#include "module_fixture.h"

namespace {

/// 168 numbers, the hour's own index in each.
std::string HourNumbers() {
    std::string text = "0";
    for (int hour = 1; hour < 168; ++hour)
        text += " " + std::to_string(hour);
    return text;
}

std::string Repeated(const std::string& number) {
    std::string text = number;
    for (int hour = 1; hour < 168; ++hour)
        text += " " + number;
    return text;
}

class TransferWindowTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeAction("WindowChanged ()", [this](KelContainer*) {
            ++changes_;
            return 0U;
        });
        CallbackDbRegisterAction("TransferWindowCallbackWindowChange", "WindowChanged ()", {}, 0);
    }
    void TearDown() override {
        CallbackDbDeleteAction("TransferWindowCallbackWindowChange", "WindowChanged ()", {});
    }

    static KelContainer Window(int direction) {
        KelContainer container;
        container.SetInt32("Direction", direction);
        EXPECT_EQ(Call("TransferWindowCheckWindow", container), 0U);
        return container;
    }

    static unsigned int Set(int direction, const std::string& slots, int type, bool utc = false) {
        KelContainer container;
        container.SetInt32("Direction", direction);
        container.SetString("Slots", slots);
        container.SetInt32("SlotType", type);
        container.SetBool("UseUTCTime", utc);
        return Call("TransferWindowSetWindow", container);
    }

    std::atomic<int> changes_ = 0;
};

TEST_F(TransferWindowTest, WindowsComeFromTheIniFile) {
    WriteIni("TransferWindow", "[Up]\nSlots = " + HourNumbers() +
                                   "\nSlotType = 1\nUseUTCTime = true\n"
                                   "[Down]\nSlots =\n[Multicast]\nSlots = 50\nSlotType = 7\n");
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    const KelContainer up = Window(1);
    EXPECT_EQ(up.GetContainer("Values").GetString("Slots"), HourNumbers());
    EXPECT_EQ(up.GetContainer("Values").GetInt32("SlotType"), 1);
    EXPECT_TRUE(up.GetContainer("Values").GetBool("UseUTCTime"));
    EXPECT_FALSE(Window(2).Has("Values"));
    const KelContainer answer = Call("TransferWindowCheckAllWindows");
    const KelContainer& all = answer.GetContainer("Values");
    ASSERT_EQ(all.Count("Direction"), 2U);
    EXPECT_EQ(all.GetInt32("Direction", 0, 0), 1);
    EXPECT_EQ(all.GetInt32("Direction", 0, 1), 3);
    EXPECT_EQ(all.GetContainer("Values", 1).GetString("Slots"), Repeated("50"));
}

TEST_F(TransferWindowTest, AnUnusableWindowInTheIniFileIsLoggedAndLeavesTheOthers) {
    WriteIni("TransferWindow", "[Up]\nSlots = 1 2 3\n[Down]\nSlots = 9\n");
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_FALSE(Window(1).Has("Values"));
    EXPECT_TRUE(Window(2).Has("Values"));
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "section Up"), 1);
}

TEST_F(TransferWindowTest, ASetWindowIsKeptAndReported) {
    WriteIni("TransferWindow", "; limits of this site\n[Down]\nSlots = 7\n");
    {
        RunningModule<TransferWindow> module;
        ASSERT_TRUE(module.Initialise());
        EXPECT_EQ(Set(1, " 100 ", 2, true), 0U);
        EXPECT_EQ(Set(2, "", 2), 0U);
        EXPECT_EQ(changes_, 2);
        EXPECT_FALSE(Window(2).Has("Values"));
    }
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    const KelContainer up = Window(1);
    EXPECT_EQ(up.GetContainer("Values").GetString("Slots"), Repeated("100"));
    EXPECT_TRUE(up.GetContainer("Values").GetBool("UseUTCTime"));
    EXPECT_FALSE(Window(2).Has("Values"));
    EXPECT_EQ(TempFolder::Read(root_ / "config/TransferWindow.ini").rfind("; limits of this site\n", 0), 0U);
    EXPECT_FALSE(std::filesystem::exists(root_ / "config/TransferWindow.ini.new"));
}

TEST_F(TransferWindowTest, UnusableWindowsAreRefusedAndChangeNothing) {
    struct Case {
        const char* name;
        int direction;
        std::string slots;
        int type;
    };
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    ASSERT_EQ(Set(1, "10", 2), 0U);
    for (const Case& bad :
         {Case{"no direction", 0, "1", 2}, Case{"unknown direction", 4, "1", 2},
          Case{"type below", 1, "1", 0}, Case{"type above", 1, "1", 9},
          Case{"a number short", 1, HourNumbers().substr(2), 2},
          Case{"a number too many", 1, HourNumbers() + " 1", 2}, Case{"negative", 1, "-1", 2},
          Case{"plus sign", 1, "+1", 2}, Case{"octal", 1, "010", 2}, Case{"hexadecimal", 1, "0x10", 2},
          Case{"not a number", 1, "fast", 2}, Case{"over 64 bits", 1, "99999999999999999999", 2},
          Case{"overflows in kbit/s", 1, "18446744073709551615", 3}, Case{"over 100 per cent", 1, "101", 7},
          Case{"over 1000 per thousand", 1, "1001", 8},
          Case{"line feed", 1, Repeated("1") + "\n[Down]", 2}}) {
        EXPECT_EQ(Set(bad.direction, bad.slots, bad.type), kKelErrorBadInput) << bad.name;
    }
    KelContainer withoutSlots;
    withoutSlots.SetInt32("Direction", 1);
    EXPECT_EQ(Call("TransferWindowSetWindow", withoutSlots), kKelErrorBadInput);
    EXPECT_FALSE(withoutSlots.GetString("Message").empty());
    EXPECT_EQ(Window(1).GetContainer("Values").GetString("Slots"), Repeated("10"));
    EXPECT_EQ(changes_, 1);
}

TEST_F(TransferWindowTest, AWindowThatCannotBeWrittenStaysAsItWas) {
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    std::filesystem::remove_all(root_ / "config");
    EXPECT_EQ(Set(1, "10", 2), kKelErrorInternal);
    EXPECT_FALSE(Window(1).Has("Values"));
    EXPECT_EQ(changes_, 0);
}

TEST_F(TransferWindowTest, ConcurrentChangesEndInMemoryAsOnDisk) {
    KelContainer last;
    {
        RunningModule<TransferWindow> module;
        ASSERT_TRUE(module.Initialise());
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([thread] {
                for (int i = 0; i < 5; ++i) {
                    EXPECT_EQ(Set(1 + i % 3, std::to_string(thread * 10 + i), 1 + thread), 0U);
                    Window(1);
                }
            });
        }
        threads.clear();
        last = Call("TransferWindowCheckAllWindows");
    }
    EXPECT_EQ(changes_, 20);
    RunningModule<TransferWindow> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_EQ(Call("TransferWindowCheckAllWindows"), last);
}

}  // namespace

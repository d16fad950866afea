#include "modules/transfer_window/transfer_window.h"

#include "kel/text.h"
#include "module_fixture.h"
#include "modules/transfer_window/week_text.h"
#include "on_threads.h"

namespace {

/// A number for each hour of the week, `step` more from one to the next.
std::string Week(int first, int step = 0) {
    std::string text = std::to_string(first);
    for (int hour = 1; hour < 168; ++hour)
        text += " " + std::to_string(first + hour * step);
    return text;
}

std::string AllWeek(const std::string& rate) {
    std::string text = rate;
    for (int hour = 1; hour < 168; ++hour)
        text += " " + rate;
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

/// What a form is read as: the rates of some hours, and how it is written again.
TEST(WeekText, RulesAreReadAndWritten) {
    struct Case {
        const char* given;
        int slotType;
        const char* written;
        std::vector<std::pair<int, const char*>> hours;
    };
    for (const Case& form : std::vector<Case>{
             {"mon-fri 8-18 4M; sat,sun closed; else 20M",
              3,
              "mon-fri 8-18 4M; sat,sun closed; else 20M",
              {{7, "20M"}, {8, "4M"}, {17, "4M"}, {18, "20M"}, {4 * 24 + 8, "4M"}, {5 * 24, "closed"}}},
             {" Sunday , wed  0 - 6,22-24  1.5 Mbit/s ;ELSE 512k;",
              2,
              "wed,sun 0-6,22-24 1500k; else 512k",
              {{48, "1500k"}, {54, "512k"}, {167, "1500k"}}},
             {"22-6 1G; else 1500bit",
              1,
              "0-6,22-24 1G; else 1500bit",
              {{0, "1G"}, {6, "1500bit"}, {22, "1G"}}},
             {"sun 22-6 closed; else 5/1000",
              8,
              "mon 0-6 closed; sun 22-24 closed; else 5/1000",
              {{0, "closed"}, {5, "closed"}, {6, "5/1000"}, {166, "closed"}}},
             {"fri-mon 50%; else 0",
              7,
              "tue-thu closed; else 50%",
              {{23, "50%"}, {24, "closed"}, {96, "50%"}}},
             {"mon 1M; mon 2M; else 3M", 3, "mon 1M; else 3M", {{0, "1M"}}},
             {"10M", 3, "10M", {{0, "10M"}, {167, "10M"}}},
             {"closed", 3, "closed", {{100, "closed"}}}}) {
        SCOPED_TRACE(form.given);
        const auto window = ParseWeekText(form.given, true);
        ASSERT_TRUE(window) << window.Error().message;
        EXPECT_EQ(window->slotType, form.slotType);
        EXPECT_TRUE(window->useUtcTime);
        EXPECT_EQ(WeekText(*window), form.written);
        EXPECT_EQ(*ParseWeekText(form.written, true), *window);
        for (const auto& [hour, rate] : form.hours)
            EXPECT_EQ(HourRates(*window).at(static_cast<std::size_t>(hour)), rate) << hour;
    }
    for (const KelString& unusable :
         SplitText("|;|mon 4M|else 4M; mon 2M|mon 4; else 2M|mon 4X; else 2M|mon 25-26 1M; else 2M|mon 8-8 "
                   "1M; else 2M|mon 8 1M; else 2M|mon 4 8k; else 2M|moon 1M; else 2M|mon 1M 2M; else "
                   "3M|else|mon; else 2M|else 1.2345M|else -1M|else 500bit|mon 50%; else 1M|mon 5/1000; else "
                   "5%|else 101%|else 1001/1000|else 99999999999999999999M",
                   '|'))
        EXPECT_FALSE(ParseWeekText(unusable, false)) << unusable;
}

/// Local time of Central Europe: clocks go forward on the last Sunday of March and back on that of October.
TEST(WindowMoment, NextChangeIsRightOnTheDaysOnWhichClocksAreSet) {
    const char* old = getenv("TZ");
    const std::string kept = old == nullptr ? "" : old;
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    for (const auto& [name, week, utc, now, slot, change, nextSlot] :
         std::vector<std::tuple<const char*, const char*, bool, std::int64_t, int, std::int64_t, int>>{
             {"spring: 2:00 is 3:00", "sun 3-4 1M; else 2M", false, 1774742400, 145, 1774746000, 147},
             {"spring: an hour that is left out", "sun 2-3 1M; else 2M", false, 1774742400, 145, 1775347200,
              146},
             {"spring in UTC", "sun 2-3 1M; else 2M", true, 1774742400, 144, 1774749600, 146},
             {"autumn: 2:00 comes twice", "sun 2-3 1M; else 2M", false, 1792886400, 146, 1792893600, 147},
             {"over the week's end", "mon 0-1 1M; else 2M", false, 1792886400, 146, 1792969200, 0},
             {"one rate", "1M", false, 1792886400, 146, 0, 0}}) {
        SCOPED_TRACE(name);
        const auto window = ParseWeekText(week, utc);
        ASSERT_TRUE(window);
        const WindowMoment moment = MomentOf(*window, now);
        EXPECT_EQ(moment.slot, static_cast<std::size_t>(slot));
        EXPECT_EQ(moment.nextChange, change);
        EXPECT_EQ(moment.nextSlot, static_cast<std::size_t>(nextSlot));
    }
    old == nullptr ? unsetenv("TZ") : setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST_F(TransferWindowTest, RulesAreKeptInTheIniFile) {
    const std::string week = "mon-fri 8-18 4M; else 20M";
    WriteIni("TransferWindow",
             "[Up]\nSlots = 7\nSlotType = 1\n[Down]\nWeek = sat closed; else 1M\n"
             "[Multicast]\nWeek = else 1M\nSlots = 5\n");
    {
        RunningModule<TransferWindow> module;
        EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "section Multicast"), 1);
        ExpectValues(Window(2), {"SlotType=3"});
        EXPECT_EQ(Call("TransferWindowSetWindow", Values({"Direction=1", "Week=mon-fri 8-18 4M;else  20M"})),
                  0U);
        for (const char* unusable : {"Week=mon 1M", "Week=1M\n[Down]"})
            EXPECT_EQ(Call("TransferWindowSetWindow", Values({"Direction=1", unusable})), kKelErrorBadInput);
        EXPECT_EQ(Call("TransferWindowSetWindow", Values({"Direction=1", "Week=1M", "Slots=1"})),
                  kKelErrorBadInput);
    }
    RunningModule<TransferWindow> module;
    const KelContainer status = Call("TransferWindowGetStatus");
    ASSERT_EQ(status.Count("Values"), 2U);
    ExpectValues(status.GetContainer("Values"), {"Direction=1", "SlotType=3", "Week=" + week});
    ExpectValues(status.GetContainer("Values", 1), {"Direction=2", "Week=sat closed; else 1M"});
    EXPECT_EQ(Set(1, "5", 2), 0U);
    ExpectValues(Call("TransferWindowGetStatus").GetContainer("Values"),
                 {"Week=5k", "CurrentRate=5k", "NextChange=0", "HourRates=" + AllWeek("5k")});
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

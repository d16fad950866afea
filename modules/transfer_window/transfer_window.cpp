#include "modules/transfer_window/transfer_window.h"

#include <ctime>

#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "modules/transfer_window/week_text.h"
#include "modules/transfer_window/window_file.h"

namespace {

constexpr std::array kDirections = {TransferDirection::Up, TransferDirection::Down,
                                    TransferDirection::Multicast};

std::size_t IndexOf(TransferDirection direction) {
    return static_cast<std::size_t>(direction) - 1;
}

std::optional<TransferDirection> ReadDirection(const KelContainer& arguments) {
    const std::int32_t number = arguments.GetInt32("Direction");
    for (const TransferDirection direction : kDirections) {
        if (static_cast<std::int32_t>(direction) == number) return direction;
    }
    return std::nullopt;
}

unsigned int Refuse(KelContainer* arguments, const KelString& message) {
    arguments->Clear();
    arguments->SetString("Message", message);
    return kKelErrorBadInput;
}

void WriteStatus(const WeeklyWindow& window, std::int64_t now, KelContainer& values) {
    const WindowMoment moment = MomentOf(window, now);
    const auto rates = HourRates(window);
    values.SetInt32("CurrentSlot", static_cast<std::int32_t>(moment.slot));
    values.SetInt64("NextChange", moment.nextChange);
    const KelString week = WeekText(window);
    if (week.empty()) return;
    values.SetString("Week", week);
    values.SetString("CurrentRate", rates[moment.slot]);
    values.SetString("NextRate", rates[moment.nextSlot]);
    KelString all;
    for (const KelString& rate : rates)
        all += (all.empty() ? "" : " ") + rate;
    values.SetString("HourRates", all);
}

constexpr char kBadDirection[] = "Direction must be 1 (up), 2 (down) or 3 (multicast)";

}  // namespace

TransferWindow::TransferWindow() : KelModule("TransferWindow", "Transfer window module") {}

void TransferWindow::Register(const char* handle) {
    ActionDbRegisterActions<TransferWindow>(
        *this, handle,
        {{&TransferWindow::CheckWindow,
          {.signature = "TransferWindowCheckWindow",
           .purpose = "Gives the weekly window of a direction.",
           .inputs = "int32 Direction (1 up, 2 down, 3 multicast)",
           .outputs = "container Values? {string Slots, int32 SlotType, bool UseUTCTime}",
           .results = "1 no such direction",
           .callers = KelCallers::Operator}},
         {&TransferWindow::CheckAllWindows,
          {.signature = "TransferWindowCheckAllWindows",
           .purpose = "Gives all weekly windows.",
           .outputs = "container Values {int32 Direction[]?, container Values[]? {string Slots, int32 "
                      "SlotType, bool UseUTCTime}}",
           .callers = KelCallers::Operator}},
         {&TransferWindow::SetWindow,
          {.signature = "TransferWindowSetWindow",
           .purpose = "Sets the window of a direction by its slots or by rules, or removes it when both are "
                      "empty.",
           .inputs = "int32 Direction, string Slots?, int32 SlotType? (of the slots; absent: 2, kbit/s), "
                     "string Week?, bool UseUTCTime?",
           .results = "1 unusable; 18 not written",
           .callers = KelCallers::Operator,
           .changes = true}},
         {&TransferWindow::GetStatus,
          {.signature = "TransferWindowGetStatus",
           .purpose = "Gives all windows with what they allow now and next.",
           .outputs = "container Values[]? {string Slots, int32 SlotType, bool UseUTCTime, int32 Direction, "
                      "int32 CurrentSlot, int64 NextChange (seconds since the epoch; 0: never), string Week? "
                      "(absent for slots without rates), string CurrentRate?, string NextRate?, string "
                      "HourRates? (168, between blanks)}",
           .callers = KelCallers::Operator}}});
}

bool TransferWindow::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    const KelLock lock(mutexWindows_);
    for (const TransferDirection direction : kDirections) {
        // An unusable window is ignored: it must not keep the agent from starting.
        const auto window = ReadWindow(ini, direction);
        windows_[IndexOf(direction)] = window ? *window : OptionalWindow();
    }
    return true;
}

std::span<const IniSetting> TransferWindow::IniSettings() const {
    return WindowIniSettings();
}

void TransferWindow::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const {
    for (const TransferDirection direction : kDirections)
        if (const auto window = ReadWindow(ini, direction); !window)
            faults.push_back(
                {IniFault::Weight::Unusable,
                 window.Error().message + "; the direction has no window until this is corrected"});
}

unsigned int TransferWindow::CheckWindow(KelContainer* arguments) {
    const auto direction = ReadDirection(*arguments);
    if (!direction) return Refuse(arguments, kBadDirection);
    OptionalWindow window;
    {
        const KelLock lock(mutexWindows_);
        window = windows_[IndexOf(*direction)];
    }
    arguments->Clear();
    if (window) arguments->SetContainer("Values", window->ToContainer());
    return kKelOk;
}

unsigned int TransferWindow::CheckAllWindows(KelContainer* arguments) {
    KelContainer values;
    {
        const KelLock lock(mutexWindows_);
        std::uint32_t count = 0;
        for (const TransferDirection direction : kDirections) {
            const OptionalWindow& window = windows_[IndexOf(direction)];
            if (!window) continue;
            values.SetInt32("Direction", static_cast<std::int32_t>(direction), count);
            values.SetContainer("Values", window->ToContainer(), count);
            ++count;
        }
    }
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int TransferWindow::GetStatus(KelContainer* arguments) {
    std::array<OptionalWindow, kDirections.size()> windows;
    {
        const KelLock lock(mutexWindows_);
        windows = windows_;
    }
    arguments->Clear();
    const std::int64_t now = std::time(nullptr);
    std::uint32_t count = 0;
    for (const TransferDirection direction : kDirections) {
        const OptionalWindow& window = windows[IndexOf(direction)];
        if (!window) continue;
        KelContainer values = window->ToContainer();
        values.SetInt32("Direction", static_cast<std::int32_t>(direction));
        WriteStatus(*window, now, values);
        arguments->SetContainer("Values", std::move(values), count++);
    }
    return kKelOk;
}

unsigned int TransferWindow::SetWindow(KelContainer* arguments) {
    const auto direction = ReadDirection(*arguments);
    if (!direction) return Refuse(arguments, kBadDirection);
    if (!arguments->Has("Slots") && !arguments->Has("Week"))
        return Refuse(arguments, "Slots and Week are missing; give Slots empty to remove a window");
    const KelString slots = Trim(arguments->GetString("Slots"));
    const KelString week = Trim(arguments->GetString("Week"));
    if (HasControlCharacter(week)) return Refuse(arguments, "Week contains a control character");
    if (slots.empty() && week.empty()) return StoreWindow(*direction, std::nullopt, arguments);
    // The default is for an absent value only: a value of the wrong type must be refused, not replaced.
    const std::int32_t slotType =
        arguments->Has("SlotType") ? arguments->GetInt32("SlotType") : WeeklyWindow().slotType;
    const auto window = MakeWindow(week, slots, slotType, arguments->GetBool("UseUTCTime"));
    if (!window) {
        Log().Warning("A window was refused: %S\n", window.Error().message);
        return Refuse(arguments, window.Error().message);
    }
    return StoreWindow(*direction, *window, arguments);
}

unsigned int TransferWindow::StoreWindow(TransferDirection direction, const OptionalWindow& window,
                                         KelContainer* arguments) {
    arguments->Clear();
    {
        const KelLock fileLock(mutexFile_);
        if (const KelStatus written = WriteWindow(IniPath(), direction, window); !written) {
            Log().Error("The window was not changed: %S\n", written.Error().message);
            arguments->SetString("Message", written.Error().message);
            return kKelErrorInternal;
        }
        const KelLock lock(mutexWindows_);
        windows_[IndexOf(direction)] = window;
    }
    Log().Print("The transfer window of the direction %s was %s\n", WindowSection(direction),
                window ? "set" : "removed");
    // Without the locks: a subscriber reads the window at once.
    KelContainer results;
    CallbackDbTrigger("TransferWindowCallbackWindowChange", KelContainer(), results);
    return kKelOk;
}

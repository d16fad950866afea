#include <array>
#include <cstdio>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "cli/terminal.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/week_hours.h"

namespace {

// Directions and units of windows, by their numbers in the actions; unused numbers are empty.
constexpr std::array<const char*, 4> kDirections = {"", "up", "down", "multicast"};
constexpr std::array<const char*, 9> kUnits = {"", "bit/s", "kbit/s", "Mbit/s",      "",
                                               "", "",      "%",      "per thousand"};
constexpr std::array<const char*, 7> kDays = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
constexpr std::size_t kDayHours = 24;
constexpr std::int32_t kPercent = 7;
constexpr std::int32_t kPerThousand = 8;

KelString Name(const auto& names, std::int32_t value) {
    const auto index = static_cast<std::size_t>(value);
    return value > 0 && index < names.size() ? names[index] : std::to_string(value);
}

KelString ZoneText(const KelContainer& window) {
    return window.GetBool("UseUTCTime") ? "UTC" : "local time";
}

/// The rate in force now; a slot type without rates leaves the one in force that was there before.
KelString RateText(const KelContainer& window) {
    return window.GetString("CurrentRate", "as before");
}

/// The windows of all directions, in their order; an empty container for one without a window.
std::array<KelContainer, kDirections.size()> ByDirection(const KelContainer& windows, const KelString& name) {
    std::array<KelContainer, kDirections.size()> all;
    for (std::uint32_t i = 0; i < ItemCount(windows, name); ++i) {
        const KelContainer& window = windows.GetContainer(name, i);
        const auto direction = static_cast<std::size_t>(window.GetInt32("Direction"));
        if (direction > 0 && direction < all.size()) all[direction] = window;
    }
    return all;
}

/// A line for each direction: what is in force, until when, and the rules.
KelString Overview(const std::array<KelContainer, kDirections.size()>& windows) {
    Table table({"DIRECTION", "NOW", "NEXT CHANGE", "THEN", "HOURS OF", "WEEK"});
    table.Fit(TerminalWidth(), {5});
    for (std::size_t i = 1; i < windows.size(); ++i) {
        const KelContainer& window = windows[i];
        if (window.IsEmpty()) {
            table.AddRow({kDirections[i], "no limit"});
            continue;
        }
        const KelString change = TimeText(window.GetInt64("NextChange"));
        table.AddRow({kDirections[i], RateText(window), change.empty() ? "none" : change,
                      change.empty() ? "" : window.GetString("NextRate"), ZoneText(window),
                      window.GetString("Week")});
    }
    return table.Render();
}

/// The rates by day and hour; the hour that it is now stands in brackets.
KelString WeekTable(const KelContainer& window) {
    const KelVector<KelString> rates = SplitText(window.GetString("HourRates"), ' ');
    if (rates.size() != kWeekHours) return {};
    KelVector<KelString> headings = {""};
    for (std::size_t hour = 0; hour < kDayHours; ++hour)
        headings.push_back(std::to_string(hour));
    Table table(headings);
    const auto now = static_cast<std::size_t>(window.GetInt32("CurrentSlot"));
    for (std::size_t day = 0; day < kDays.size(); ++day) {
        KelVector<KelString> row = {kDays[day]};
        for (std::size_t slot = day * kDayHours; slot < (day + 1) * kDayHours; ++slot) {
            const KelString rate = rates[slot] == "closed" ? "-" : rates[slot];
            row.push_back(slot == now ? "[" + rate + "]" : rate);
        }
        table.AddRow(std::move(row));
    }
    return table.Render();
}

/// What the relative rates of a window to the parent are shares of; empty when it has none.
KelString BandwidthLine(const Remote& remote, const KelContainer& window) {
    const std::int32_t type = window.GetInt32("SlotType");
    if (type != kPercent && type != kPerThousand) return {};
    KelContainer waiting;
    remote.CallQuietly("FileStoreGetWaiting", waiting);
    const KelContainer& values = waiting.GetContainer("Values");
    if (!values.Has("Bandwidth")) return "\nBandwidth to the parent: not needed so far\n";
    return KelFormat("\nBandwidth to the parent: %gd kbit/s, %s\n", values.GetInt64("Bandwidth") / 1000,
                     values.GetBool("BandwidthMeasured")
                         ? "measured"
                         : "assumed, because the parent does not have it measured");
}

int GetWindows(const Remote& remote, bool json) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("TransferWindowGetStatus", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (json)
        PrintJson(WindowsForJson(answer, "Values"));
    else
        std::fputs((WindowsText(answer) + BandwidthLine(remote, ByDirection(answer, "Values")[1])).c_str(),
                   stdout);
    return kExitDone;
}

int SetWindow(const Remote& remote, bool json, const WindowsOptions& options) {
    KelContainer arguments;
    for (std::size_t i = 1; i < kDirections.size(); ++i)
        if (options.direction == kDirections[i])
            arguments.SetInt32("Direction", static_cast<std::int32_t>(i));
    if (options.week.empty()) {
        arguments.SetString("Slots", options.slots);
        arguments.SetInt32("SlotType", options.slotType);
    } else {
        arguments.SetString("Week", options.week);
    }
    arguments.SetBool("UseUTCTime", options.utc);
    const unsigned int result = remote.Call("TransferWindowSetWindow", arguments);
    if (result == kKelOk && json) std::puts("[]");
    return ExitCodeOf(result);
}

}  // namespace

KelContainer WindowsForJson(const KelContainer& answer, const KelString& name) {
    KelContainer list;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i) {
        KelContainer item = answer.GetContainer("Values", i);
        item.SetString("Direction", Name(kDirections, item.GetInt32("Direction")));
        item.SetString("Unit", Name(kUnits, item.GetInt32("SlotType")));
        list.SetContainer(name, std::move(item), i);
    }
    return list;
}

KelString WindowsText(const KelContainer& answer) {
    const auto windows = ByDirection(answer, "Values");
    KelString text = Overview(windows);
    for (std::size_t i = 1; i < windows.size(); ++i)
        if (const KelString week = WeekTable(windows[i]); !week.empty())
            text += KelString("\n") + kDirections[i] + ", " + ZoneText(windows[i]) + "\n" + week;
    return text;
}

KelString WindowsLine(const KelContainer& answer) {
    const auto windows = ByDirection(answer, "Values");
    KelString line;
    for (std::size_t i = 1; i < windows.size(); ++i) {
        const KelString change = TimeText(windows[i].GetInt64("NextChange"));
        line += (line.empty() ? "" : "; ") + KelString(kDirections[i]) + " ";
        line += windows[i].IsEmpty() ? "no limit" : RateText(windows[i]);
        if (!change.empty()) line += " until " + change + ", then " + windows[i].GetString("NextRate");
    }
    return line;
}

int RunCommand(const CommonOptions& common, const WindowsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    return options.direction.empty() ? GetWindows(*remote, common.json)
                                     : SetWindow(*remote, common.json, options);
}

#include <array>
#include <set>

#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "kel/text.h"

namespace {

constexpr std::array<const char*, 4> kDirections = {"", "up", "down", "multicast"};
constexpr std::array<const char*, 9> kUnits = {"", "bit/s", "kbit/s", "Mbit/s",      "",
                                               "", "",      "%",      "per thousand"};

KelString Name(const auto& names, std::int32_t value) {
    const auto index = static_cast<std::size_t>(value);
    return value > 0 && index < names.size() ? names[index] : std::to_string(value);
}

/// "400000 kbit/s" for a window that is the same in every hour, else how many different rates there are.
KelString RateText(const KelContainer& window) {
    const KelVector<KelString> slots = SplitText(window.GetString("Slots"), ' ');
    const std::set<KelString> different(slots.begin(), slots.end());
    const KelString unit = Name(kUnits, window.GetInt32("SlotType"));
    if (different.size() == 1) return *different.begin() + " " + unit;
    return std::to_string(different.size()) + " rates in " + unit;
}

int GetWindows(const Remote& remote, bool json) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("TransferWindowCheckAllWindows", answer); result != 0)
        return ExitCodeOf(result);
    const KelContainer& values = answer.GetContainer("Values");
    KelContainer list;
    const std::uint32_t count = values.Has("Direction") ? values.Count("Direction") : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        KelContainer item = values.GetContainer("Values", i);
        item.SetInt32("Direction", values.GetInt32("Direction", 0, i));
        list.SetContainer("Values", std::move(item), i);
    }
    PrintList(list, "Values", json,
              {{"DIRECTION",
                [](const KelContainer& item) { return Name(kDirections, item.GetInt32("Direction")); }},
               {"RATE", RateText},
               {"HOURS OF", [](const KelContainer& item) {
                    return KelString(item.GetBool("UseUTCTime") ? "UTC" : "local time");
                }}});
    return kExitDone;
}

int SetWindow(const Remote& remote, const WindowsOptions& options) {
    KelContainer arguments;
    for (std::size_t i = 1; i < kDirections.size(); ++i)
        if (options.direction == kDirections[i])
            arguments.SetInt32("Direction", static_cast<std::int32_t>(i));
    arguments.SetString("Slots", options.slots);
    arguments.SetInt32("SlotType", options.slotType);
    arguments.SetBool("UseUTCTime", options.utc);
    return ExitCodeOf(remote.Call("TransferWindowSetWindow", arguments));
}

}  // namespace

int RunWindows(const CommonOptions& common, const WindowsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    return options.direction.empty() ? GetWindows(*remote, common.json) : SetWindow(*remote, options);
}

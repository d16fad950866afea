#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"

namespace {

/// What the actions call the states of devices, and their names here.
constexpr std::array<std::pair<std::string_view, const char*>, 4> kStates = {{
    {"MulticastWaiting", "waiting"},
    {"MulticastInProgress", "in_progress"},
    {"MulticastSucceeded", "succeeded"},
    {"MulticastFailed", "failed"},
}};
constexpr std::string_view kRetry = "Retry ";  ///< before the number of the next pass; 0: there is none

KelString StateText(const KelContainer& item) {
    const std::int32_t retry = item.GetInt32("Retry");
    return retry != 0 ? item.GetString("State") + " " + std::to_string(retry) : item.GetString("State");
}

}  // namespace

KelContainer MulticastItem(const KelContainer& values) {
    KelContainer item;
    item.SetString("Group", values.GetString("MulticastAddress"));
    if (values.Has("DeviceUrl")) item.SetString("Device", values.GetString("DeviceUrl"));
    const KelString status = values.GetString("Status");
    KelString state = status;
    for (const auto& [name, known] : kStates)
        if (status == name) state = known;
    std::int32_t retry = 0;
    if (status.starts_with(kRetry)) {
        state = "retry";
        std::from_chars(status.data() + kRetry.size(), status.data() + status.size(), retry);
    }
    item.SetString("State", state);
    if (retry != 0) item.SetInt32("Retry", retry);
    if (values.Has("CountStatus")) item.SetInt32("Devices", values.GetInt32("CountStatus"));
    return item;
}

int RunCommand(const CommonOptions& common, const MulticastOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    const char* action = options.details ? "FileStoreGetMulticastDetails" : "FileStoreGetMulticastStatus";
    if (const unsigned int result = remote->Call(action, answer); result != kKelOk) return ExitCodeOf(result);
    KelContainer list;
    for (std::uint32_t i = 0; i < ItemCount(answer, "Values"); ++i)
        list.SetContainer("Values", MulticastItem(answer.GetContainer("Values", i)), i);
    const Column group = ValueColumn("GROUP", "Group");
    const Column state = {"STATE", StateText};
    if (options.details)
        PrintList(list, common.json, {group, TextColumn("DEVICE", "Device"), state});
    else
        PrintList(list, common.json, {group, state, ValueColumn("DEVICES", "Devices")});
    return kExitDone;
}

#include <cstdio>

#include "cli/commands.h"
#include "cli/device_order.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "cli/table.h"

namespace {

constexpr std::size_t kIndent = 2;

void PrintTree(const KelContainer& answer) {
    Table table({"NAME", "ROLE", "ADDRESS", "GUID", "LAST SEEN"});
    for (const DeviceRow& row : OrderByParent(answer)) {
        const KelContainer& device = answer.GetContainer("Values", row.index);
        table.AddRow({KelString(row.depth * kIndent, ' ') + device.GetString("Name"),
                      device.GetString("Role"), device.GetString("Address"), device.GetString("GUID"),
                      TimeText(device.GetInt64("LastSeen"))});
    }
    std::fputs(table.Render().c_str(), stdout);
}

}  // namespace

int RunDevices(const CommonOptions& common, const DevicesOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (const unsigned int result = remote->Call("ConsoleListDevices", answer); result != 0)
        return ExitCodeOf(result);
    if (common.json)
        PrintList(answer, "Values", true, {});
    else
        PrintTree(answer);
    return kExitDone;
}

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

int RunCommand(const CommonOptions& common, const WithdrawOptions& options) {
    KelContainer call;
    call.SetString("PublicationId", options.id);
    return PrintActionList(common, "ConsoleWithdraw", std::move(call),
                           {ValueColumn("PUBLICATION", "PublicationId"), TextColumn("FILE", kValueFileName),
                            ValueColumn("TARGETS", "Targets"), ValueColumn("DELIVERED", "Delivered"),
                            ValueColumn("FAILED", "Failed"), ValueColumn("WITHDRAWN", "Withdrawn"),
                            ValueColumn("REMOVED", "Removed")});
}

int RunCommand(const CommonOptions& common, const RemoveDeviceOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetString("Device", options.device);
    if (const unsigned int result = remote->Call("ConsoleRemoveDevice", call); result != kKelOk)
        return ExitCodeOf(result);
    KelContainer list;
    list.SetContainer("Values", std::move(call));
    PrintList(list, common.json, {ValueColumn("REMOVED", "Name"), ValueColumn("GUID", "GUID")});
    return kExitDone;
}

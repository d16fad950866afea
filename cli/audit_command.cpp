#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_text.h"
#include "kelcore/json.h"

namespace {

/// The address that called; of a call at the master, the master and the device that has passed it on.
KelString CallerText(const KelContainer& line) {
    const KelString master = line.GetString("Master");
    const KelString address = line.GetString("Address");
    return master.empty() ? address : "master " + master + " by " + address;
}

KelString ResultText(const KelContainer& line) {
    if (!line.Has("Result")) return "not known: running, or cut off";
    const std::int64_t result = line.GetInt64("Result");
    if (result == 0) return "done";
    const KelString message = line.GetString("Message");
    return message.empty() ? "refused: " + KelErrorText(static_cast<unsigned int>(result))
                           : "refused: " + message;
}

}  // namespace

int RunCommand(const CommonOptions& common, const AuditOptions& options) {
    KelContainer arguments;
    arguments.SetInt32("Limit", options.limit);
    if (options.since) arguments.SetInt64("Since", *options.since);
    return PrintActionList(
        common, "AgentGetAudit", std::move(arguments),
        {TimeColumn("TIME", "Time"),
         TextColumn("OPERATOR", "Operator"),
         {"FROM", CallerText},
         TextColumn("DEVICE", "Device"),
         ValueColumn("ACTION", "Action"),
         {"WITH", [](const KelContainer& line) { return ContainerToJson(line.GetContainer("Arguments")); },
          true},
         {"RESULT", ResultText, true}});
}

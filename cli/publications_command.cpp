#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "cli/table.h"

namespace {

/// Who has the file of one publication.
int PrintDevices(const CommonOptions& common, const KelString& id) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetString("PublicationId", id);
    if (const unsigned int result = remote->Call("ConsoleListPublications", call); result != 0)
        return ExitCodeOf(result);
    PrintList(call, "Devices", common.json,
              {ValueColumn("NAME", "Name"),
               ValueColumn("GUID", "GUID"),
               ValueColumn("STATUS", "Status"),
               {"SINCE", [](const KelContainer& item) { return TimeText(item.GetInt64("Time")); }},
               ValueColumn("MESSAGE", "Message")});
    return kExitDone;
}

}  // namespace

int RunPublications(const CommonOptions& common, const PublicationsOptions& options) {
    if (!options.id.empty()) return PrintDevices(common, options.id);
    return PrintActionList(
        common, "ConsoleListPublications", {},
        {ValueColumn("PUBLICATION", "PublicationId"),
         ValueColumn("TYPE", "FileType"),
         ValueColumn("LABEL", "FileLabel"),
         ValueColumn("FILE", "FileName"),
         {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("FileSize")); }},
         {"PUBLISHED", [](const KelContainer& item) { return TimeText(item.GetInt64("CreateTime")); }},
         ValueColumn("TARGETS", "Targets"),
         ValueColumn("DELIVERED", "Delivered"),
         ValueColumn("FAILED", "Failed"),
         ValueColumn("PENDING", "Pending")});
}

#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/table.h"

int RunInbox(const CommonOptions& common, const InboxOptions&) {
    return PrintActionList(
        common, "DeliveryListFiles", {},
        {ValueColumn("TYPE", "FileType"),
         ValueColumn("LABEL", "FileLabel"),
         ValueColumn("NAME", "FileName"),
         {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("Size")); }},
         {"DELIVERED", [](const KelContainer& item) { return TimeText(item.GetInt64("Time")); }},
         ValueColumn("PATH", "Path")});
}

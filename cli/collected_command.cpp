#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/table.h"

int RunCollected(const CommonOptions& common, const CollectedOptions&) {
    return PrintActionList(
        common, "DeliveryListCollected", {},
        {ValueColumn("DEVICE", "Device"),
         ValueColumn("TYPE", "FileType"),
         ValueColumn("LABEL", "FileLabel"),
         ValueColumn("NAME", "FileName"),
         {"SIZE", [](const KelContainer& item) { return SizeText(item.GetInt64("Size")); }},
         ValueColumn("PATH", "Path")});
}

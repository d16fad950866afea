#include "cli/commands.h"
#include "cli/list_output.h"

int RunDevices(const CommonOptions& common, const DevicesOptions&) {
    return PrintActionList(
        common, "ConsoleListDevices", {},
        {ValueColumn("NAME", "Name"), ValueColumn("ROLE", "Role"), ValueColumn("ADDRESS", "Address"),
         ValueColumn("GUID", "GUID"), ValueColumn("PARENT", "Parent")});
}

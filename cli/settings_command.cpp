#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "cli/table.h"
#include "kelcore/json.h"

namespace {

int GetSettings(const Remote& remote, bool json, const KelVector<KelString>& names) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("FileStoreGetValues", answer); result != 0)
        return ExitCodeOf(result);
    const KelContainer& values = answer.GetContainer("Values");
    for (const KelString& name : names)
        if (!values.Has(name))
            return Complain({1, "no setting '" + name + "'; 'kel settings get' shows all"});
    KelContainer list;
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < values.GetNameCount(); ++i) {
        const KelString& name = values.GetName(i);
        if (!names.empty() && std::find(names.begin(), names.end(), name) == names.end()) continue;
        KelContainer item;
        item.SetString("Name", name);
        item.SetString("Value", values.GetString(name));
        list.SetContainer("Values", std::move(item), count++);
    }
    PrintList(list, "Values", json, {ValueColumn("NAME", "Name"), ValueColumn("VALUE", "Value")});
    return kExitDone;
}

int SetSettings(const Remote& remote, const KelVector<KelString>& assignments) {
    KelContainer known;
    if (const unsigned int result = remote.Call("FileStoreGetValues", known); result != 0)
        return ExitCodeOf(result);
    KelContainer values;
    for (const KelString& assignment : assignments) {
        const auto equals = assignment.find('=');
        if (equals == KelString::npos || equals == 0) {
            std::fprintf(stderr, "kel: '%s' is not NAME=VALUE\n", Printable(assignment).c_str());
            return kExitUsage;
        }
        const KelString name = assignment.substr(0, equals);
        if (!known.GetContainer("Values").Has(name)) return Complain({1, "no setting '" + name + "'"});
        values.SetString(name, assignment.substr(equals + 1));
    }
    KelContainer arguments;
    arguments.SetContainer("Values", std::move(values));
    return ExitCodeOf(remote.Call("FileStoreSetValues", arguments));
}

}  // namespace

int RunSettings(const CommonOptions& common, const SettingsOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    return options.assignments.empty() ? GetSettings(*remote, common.json, options.names)
                                       : SetSettings(*remote, options.assignments);
}

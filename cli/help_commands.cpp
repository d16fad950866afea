#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

#include "cli/command_table.h"
#include "cli/commands.h"
#include "cli/completion.h"
#include "cli/manual.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"

namespace {

/// One a line, or a list for JSON.
int PrintNames(const KelVector<KelString>& names, bool json) {
    KelContainer list;
    for (const KelString& name : names) {
        KelContainer item;
        item.SetString("Name", name);
        list.SetContainer("Values", std::move(item), KelContainer::kAbsent);
    }
    if (json)
        PrintJson(list);
    else
        for (const KelString& name : names)
            std::printf("%s\n", Printable(name).c_str());
    return kExitDone;
}

/// What lists the names of a kind, and the value that holds them.
struct Source {
    std::string_view kind;
    const char* action;
    const char* name;
};
constexpr Source kSources[] = {{"devices", "ConsoleListDevices", "Name"},
                               {"groups", "ConsoleListGroups", "Name"},
                               {"publications", "ConsoleListPublications", "PublicationId"},
                               {"actions", "AgentListActions", "Name"}};

KelVector<KelString> NamesIn(const Source& source, const KelContainer& answer) {
    KelVector<KelString> names;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i)
        names.push_back(answer.GetContainer("Values", i).GetString(source.name));
    return names;
}

KelVector<KelString> SettingsIn(const KelContainer& answer) {
    KelVector<KelString> names;
    const KelContainer& values = answer.GetContainer("Values");
    for (std::size_t i = 0; i < values.GetNameCount(); ++i)
        names.push_back(values.GetName(i));
    return names;
}

KelVector<KelString> CommandNames() {
    KelVector<KelString> names;
    for (const CommandEntry& command : CommandTable())
        if (!command.name.empty()) names.push_back(command.name);
    return names;
}

}  // namespace

int RunCommand(const CommonOptions& common, const CompletionOptions& options) {
    if (options.what == "commands") return PrintNames(CommandNames(), common.json);
    if (options.IsOfProgram()) {
        std::fputs(CompletionScript(CommandTable(), options.what).c_str(), stdout);
        return kExitDone;
    }
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    const auto* source = std::ranges::find(kSources, options.what, &Source::kind);
    const bool isSetting = source == std::end(kSources);
    KelContainer answer;
    answer.SetBool("CountsOnly", true);
    if (const unsigned int result = remote->Call(isSetting ? "FileStoreGetValues" : source->action, answer);
        result != kKelOk)
        return ExitCodeOf(result);
    return PrintNames(isSetting ? SettingsIn(answer) : NamesIn(*source, answer), common.json);
}

int RunCommand(const CommonOptions&, const ManualOptions&) {
    std::fputs(ManualPage(CommandTable()).c_str(), stdout);
    return kExitDone;
}

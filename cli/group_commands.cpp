#include <cstdio>

#include "cli/commands.h"
#include "cli/file_selection.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"

namespace {

using Verb = GroupsOptions::Verb;

/// The action that changes a group.
const char* ActionOf(Verb verb) {
    switch (verb) {
        case Verb::Set:
            return "ConsoleSetGroup";
        case Verb::Add:
            return "ConsoleAddToGroup";
        case Verb::Remove:
            return "ConsoleRemoveFromGroup";
        default:
            return "ConsoleDeleteGroup";
    }
}

KelResult<KelContainer> ArgumentsOf(const GroupsOptions& options) {
    const auto members = SelectTargets(options.members);
    if (!members) return members.Error();
    KelContainer arguments;
    arguments.SetString("Name", options.name);
    for (std::uint32_t i = 0; i < members->size(); ++i)
        arguments.SetString("Member", (*members)[i], i);
    return arguments;
}

int List(const Remote& remote, bool json) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("ConsoleListGroups", answer); result != kKelOk)
        return ExitCodeOf(result);
    PrintList(
        answer, json,
        {ValueColumn("GROUP", "Name"), TextColumn("MEMBERS", "Members"), ValueColumn("DEVICES", "Devices")});
    return kExitDone;
}

int Show(const Remote& remote, bool json, const KelString& name) {
    KelContainer answer;
    answer.SetString("Name", name);
    if (const unsigned int result = remote.Call("ConsoleListGroups", answer); result != kKelOk)
        return ExitCodeOf(result);
    PrintList(answer, json,
              {TextColumn("MEMBER", "Member"), ValueColumn("DEVICES", "Devices"),
               TextColumn("MESSAGE", "Message")});
    return kExitDone;
}

}  // namespace

int RunCommand(const CommonOptions& common, const GroupsOptions& options) {
    auto arguments = ArgumentsOf(options);
    if (!arguments) return Complain(arguments.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    if (options.verb == Verb::List) return List(*remote, common.json);
    if (options.verb == Verb::Show) return Show(*remote, common.json, options.name);
    if (const unsigned int result = remote->Call(ActionOf(options.verb), *arguments); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json) std::puts("[]");
    return kExitDone;
}

#include <cstdio>

#include <map>

#include "cli/commands.h"
#include "cli/file_status_text.h"
#include "cli/list_output.h"
#include "cli/remote.h"
#include "cli/table.h"
#include "kelcore/json.h"

namespace {

/// The number of files in each status, over both directions.
using Queues = std::map<KelString, std::int32_t>;

unsigned int CountFiles(const Remote& remote, bool upstream, Queues& queues) {
    KelContainer list;
    list.SetBool("ListUpstream", upstream);
    if (const unsigned int result = remote.Call("FileStoreListFiles", list); result != 0) return result;
    const std::uint32_t count = list.Has("Values") ? list.Count("Values") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        ++queues[list.GetContainer("Values", i).GetString("FileStatus")];
    return 0;
}

/// Agent, Identity and Relay hold what the modules say of themselves; Files and FilesUpstream the numbers of
/// files by status.
unsigned int ReadStatus(const Remote& remote, KelContainer& status) {
    static constexpr struct {
        const char* name;
        const char* action;
    } kSources[] = {
        {"Agent", "AgentGetStatus"}, {"Identity", "IdentityGetValues"}, {"Relay", "RelayGetValues"}};
    for (const auto& source : kSources) {
        KelContainer answer;
        if (const unsigned int result = remote.Call(source.action, answer); result != 0) return result;
        status.SetContainer(source.name, answer.GetContainer("Values"));
    }
    for (const bool upstream : {false, true}) {
        Queues queues;
        if (const unsigned int result = CountFiles(remote, upstream, queues); result != 0) return result;
        KelContainer counts;
        for (const auto& [name, count] : queues)
            counts.SetInt32(name, count);
        status.SetContainer(upstream ? "FilesUpstream" : "Files", std::move(counts));
    }
    return 0;
}

KelString ParentText(const KelContainer& relay) {
    if (relay.GetString("Role") == "master") return "none";
    const KelString name = relay.GetString("ParentName");
    const KelString host = name.empty() ? relay.GetString("ParentIPAddress") : name;
    return host + ":" + relay.GetString("ParentPort") +
           (relay.GetBool("ParentSync") ? " (in sync)" : " (out of sync)");
}

KelString QueueText(const KelContainer& counts) {
    KelString text;
    for (std::size_t i = 0; i < counts.GetNameCount(); ++i) {
        const KelString& name = counts.GetName(i);
        text += (text.empty() ? "" : ", ") + counts.GetString(name) + " " + FileStatusText(name);
    }
    return text.empty() ? "none" : text;
}

void PrintStatus(const KelContainer& status, const KelString& address) {
    const KelContainer& agent = status.GetContainer("Agent");
    const KelContainer& identity = status.GetContainer("Identity");
    const KelContainer& relay = status.GetContainer("Relay");
    KelVector<std::pair<KelString, KelString>> lines = {
        {"Device", identity.GetString("HostName") + " (" + identity.GetString("GUID") + ")"},
        {"Address", address},
        {"Role", relay.GetString("Role")},
        {"Parent", ParentText(relay)},
        {"Version", agent.GetString("Version")},
        {"Root", agent.GetString("Root")},
        {"Started", TimeText(agent.GetInt64("Started"))},
        {"Process", agent.GetString("Pid") + ", " + SizeText(agent.GetInt64("MemoryBytes"))},
        {"Files", QueueText(status.GetContainer("Files"))},
        {"Files going up", QueueText(status.GetContainer("FilesUpstream"))}};
    for (const auto& [name, value] : lines)
        std::printf("%-16s%s\n", name.c_str(), Printable(value).c_str());
}

}  // namespace

int RunStatus(const CommonOptions& common, const StatusOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer status;
    if (const unsigned int result = ReadStatus(*remote, status); result != 0) return ExitCodeOf(result);
    if (common.json) {
        KelContainer list;
        list.SetContainer("Values", std::move(status));
        PrintList(list, "Values", true, {});
    } else {
        PrintStatus(status, remote->Address());
    }
    return kExitDone;
}

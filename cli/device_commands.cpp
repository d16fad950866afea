#include <cstdio>
#include <map>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "cli/terminal.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kIndent = 2;

/// The devices of an answer, linked by their parents. What other devices reported is not trusted to be a
/// tree.
class DeviceTree {
  public:
    explicit DeviceTree(const KelContainer& answer) : placed_(ItemCount(answer)) {
        std::map<KelString, std::uint32_t> indexes;
        for (std::uint32_t i = 0; i < placed_.size(); ++i)
            indexes.emplace(answer.GetContainer("Values", i).GetString("GUID"), i);
        for (std::uint32_t i = 0; i < placed_.size(); ++i) {
            const auto parent = indexes.find(answer.GetContainer("Values", i).GetString("Parent"));
            if (parent == indexes.end() || parent->second == i)
                roots_.push_back(i);
            else
                children_[parent->second].push_back(i);
        }
    }

    KelVector<DeviceRow> Order() {
        for (const std::uint32_t root : roots_)
            Place(root);
        // What remains is below no root: parents that name each other.
        for (std::uint32_t i = 0; i < placed_.size(); ++i)
            Place(i);
        return rows_;
    }

  private:
    /// Appends the device and all below it. An explicit stack instead of recursion, because the depth comes
    /// from other devices.
    void Place(std::uint32_t root) {
        KelVector<DeviceRow> waiting = {{root, 0}};
        while (!waiting.empty()) {
            const DeviceRow row = waiting.back();
            waiting.pop_back();
            if (placed_[row.index]) continue;
            placed_[row.index] = true;
            rows_.push_back(row);
            const KelVector<std::uint32_t>& children = children_[row.index];
            for (auto child = children.rbegin(); child != children.rend(); ++child)
                waiting.push_back({*child, row.depth + 1});
        }
    }

    KelVector<bool> placed_;
    KelVector<std::uint32_t> roots_;
    std::map<std::uint32_t, KelVector<std::uint32_t>> children_;
    KelVector<DeviceRow> rows_;
};

/// Of a device that was not heard from for longer than a day.
KelString SilenceText(const KelContainer& device) {
    const KelString since = TimeText(device.GetInt64("SilentSince"));
    return since.empty() ? KelString() : "silent since " + since;
}

void PrintTree(const KelContainer& answer) {
    Table table({"NAME", "ROLE", "ADDRESS", "GUID", "VERSION", "LAST SEEN", ""});
    table.Fit(TerminalWidth(), {0, 6});
    for (const DeviceRow& row : OrderByParent(answer)) {
        const KelContainer& device = answer.GetContainer("Values", row.index);
        table.AddRow({KelString(row.depth * kIndent, ' ') + device.GetString("Name"),
                      device.GetString("Role"), device.GetString("Address"), device.GetString("GUID"),
                      device.GetString("Version"), TimeText(device.GetInt64("LastSeen")),
                      SilenceText(device)});
    }
    std::fputs(table.Render().c_str(), stdout);
}

/// Collects what `status` prints: the values of the modules under Agent, Identity and Relay, and the numbers
/// of files by status under Files and FilesUpstream, and under Waiting what holds files back. `windows` gets
/// the transfer windows, which an agent need not have.
unsigned int ReadStatus(const Remote& remote, KelContainer& status, KelContainer& windows) {
    static constexpr struct {
        const char* name;
        const char* action;
    } kSources[] = {
        {"Agent", "AgentGetStatus"}, {"Identity", "IdentityGetValues"}, {"Relay", "RelayGetValues"}};
    for (const auto& source : kSources) {
        KelContainer answer;
        if (const unsigned int result = remote.Call(source.action, answer); result != kKelOk) return result;
        status.SetContainer(source.name, answer.GetContainer("Values"));
    }
    for (const bool upstream : {false, true}) {
        KelContainer counts;
        counts.SetBool("ListUpstream", upstream);
        counts.SetBool("CountsOnly", true);
        if (const unsigned int result = remote.Call("FileStoreListFiles", counts); result != kKelOk)
            return result;
        status.SetContainer(upstream ? "FilesUpstream" : "Files", counts.GetContainer("Counts"));
    }
    KelContainer children;
    if (remote.CallQuietly("RelayListChildren", children) == kKelOk)
        for (std::uint32_t i = 0; i < ItemCount(children); ++i)
            status.SetContainer("Children", children.GetContainer("Values", i), i);
    if (remote.CallQuietly("TransferWindowGetStatus", windows) != kKelOk) windows.Clear();
    KelContainer waiting;
    const unsigned int result = remote.Call("FileStoreGetWaiting", waiting);
    if (result == kKelOk) status.SetContainer("Waiting", waiting.GetContainer("Values"));
    return result;
}

KelString DiskText(const KelContainer& waiting) {
    const KelString free = SizeText(waiting.GetInt64("DiskFree")) + " free";
    if (!waiting.Has("DiskFull")) return free;
    const KelContainer& full = waiting.GetContainer("DiskFull");
    return free + "; full since " + TimeText(full.GetInt64("Since")) + ": " + full.GetString("WaitingFiles") +
           " files wait, the largest needs " + SizeText(full.GetInt64("Needed"));
}

/// "12 with 1.0.0, 3 with 0.9.0".
KelString ChildrenText(const KelContainer& status) {
    if (!status.GetContainer("Relay").GetBool("IsEnabled")) return "none";
    std::map<KelString, int> byVersion;
    for (std::uint32_t i = 0; i < ItemCount(status, "Children"); ++i)
        ++byVersion[status.GetContainer("Children", i).GetString("Version")];
    KelString text;
    for (const auto& [version, count] : byVersion)
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " with version " + version;
    return text.empty() ? "none have called in the last hour" : text;
}

void PrintStatus(const KelContainer& status, const KelString& windows, const KelString& address) {
    const KelContainer& agent = status.GetContainer("Agent");
    const KelContainer& identity = status.GetContainer("Identity");
    const KelContainer& relay = status.GetContainer("Relay");
    const KelContainer& waiting = status.GetContainer("Waiting");
    KelVector<std::pair<KelString, KelString>> lines = {
        {"Device", identity.GetString("HostName") + " (" + identity.GetString("GUID") + ")"},
        {"Address", address},
        {"Role", relay.GetString("Role")},
        {"Parent", ParentText(relay)},
        {"Children", ChildrenText(status)},
        {"Version", agent.GetString("Version")},
        {"Root", agent.GetString("Root")},
        {"Started", TimeText(agent.GetInt64("Started"))},
        {"Process", agent.GetString("Pid") + ", " + SizeText(agent.GetInt64("MemoryBytes"))},
        {"Files", QueueText(status.GetContainer("Files"))},
        {"Files going up", QueueText(status.GetContainer("FilesUpstream"))},
        {"Targets waiting", waiting.GetString("WaitingTargets")},
        {"Windows", windows},
        {"Disk", DiskText(waiting)}};
    for (const auto& [name, value] : lines)
        std::printf("%-17s%s\n", name.c_str(), Printable(value).c_str());
}

}  // namespace

KelString QueueText(const KelContainer& counts) {
    KelString text;
    for (std::size_t i = 0; i < counts.GetNameCount(); ++i) {
        const KelString& name = counts.GetName(i);
        text += (text.empty() ? "" : ", ") + counts.GetString(name) + " " + FileStatusText(name);
    }
    return text.empty() ? "none" : text;
}

KelString ParentText(const KelContainer& relay) {
    if (relay.GetString("Role") == "master") return "none";
    const KelString name = relay.GetString("ParentName");
    const KelString host = name.empty() ? relay.GetString("ParentIPAddress") : name;
    const KelString parent = host + ":" + relay.GetString("ParentPort");
    const KelString since = TimeText(relay.GetInt64("ParentSince"));
    const KelString problem = relay.GetString("ParentProblem");
    const KelString version = relay.GetString("ParentVersion");
    return parent + (version.empty() ? "" : ", version " + version) +
           (relay.GetBool("ParentSync") ? " (in sync" : " (out of sync") +
           (since.empty() ? "" : " since " + since) + (problem.empty() ? "" : ": " + problem) + ")";
}

KelVector<DeviceRow> OrderByParent(const KelContainer& answer) {
    return DeviceTree(answer).Order();
}

int RunCommand(const CommonOptions& common, const DevicesOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (const unsigned int result = remote->Call("ConsoleListDevices", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json)
        PrintJson(answer);
    else
        PrintTree(answer);
    return kExitDone;
}

int RunCommand(const CommonOptions& common, const StatusOptions&) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer status, windows;
    if (const unsigned int result = ReadStatus(*remote, status, windows); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json) {
        const KelContainer named = WindowsForJson(windows, "Windows");
        for (std::uint32_t i = 0; i < ItemCount(named, "Windows"); ++i)
            status.SetContainer("Windows", named.GetContainer("Windows", i), i);
        KelContainer list;
        list.SetContainer("Values", std::move(status));
        PrintJson(list);
    } else {
        PrintStatus(status, WindowsLine(windows), remote->Address());
    }
    return kExitDone;
}

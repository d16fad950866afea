#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <memory>

#include "cli/commands.h"
#include "cli/doctor.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

using State = Finding::State;

const char* StateName(State state) {
    switch (state) {
        case State::Ok:
            return "ok";
        case State::Warning:
            return "warning";
        default:
            return "problem";
    }
}

void Append(KelVector<Finding>& findings, KelVector<Finding> more) {
    findings.insert(findings.end(), std::make_move_iterator(more.begin()),
                    std::make_move_iterator(more.end()));
}

KelString Quoted(const KelString& text) {
    KelString quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? KelString("'\\''") : KelString(1, c);
    return quoted + "'";
}

/// What the agent's program, which stands beside this one, finds in the ini files.
KelVector<Finding> ExamineConfiguration(const KelString& root) {
    std::error_code failure;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", failure);
    const KelString program = (self.parent_path() / "kelagent").string();
    if (!FileExists(program))
        return {{"configuration", State::Warning, "kelagent is not installed beside this program",
                 "install the package kel-agent"}};
    const KelString command = Quoted(program) + " --root " + Quoted(root) + " --check 2>&1";
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), pclose);
    KelVector<Finding> findings;
    std::array<char, 4096> line{};
    while (output && std::fgets(line.data(), line.size(), output.get()) != nullptr) {
        KelString text(line.data());
        text.erase(text.find_last_not_of("\n") + 1);
        if (text == "The configuration is usable.") continue;
        const bool isWarning = text.starts_with("warning: ");
        findings.push_back({"configuration", isWarning ? State::Warning : State::Problem,
                            isWarning ? text.substr(text.find(' ') + 1) : text, "correct the ini file"});
    }
    if (findings.empty()) findings.push_back({"configuration", State::Ok, "the ini files are usable", {}});
    return findings;
}

KelVector<Finding> ExamineDatabases(const Remote& remote) {
    KelContainer answer;
    if (remote.CallQuietly("AgentCheckDatabases", answer, 600) != kKelOk) return {};
    KelVector<Finding> findings;
    for (std::uint32_t i = 0; i < ItemCount(answer); ++i) {
        const KelContainer& database = answer.GetContainer("Values", i);
        if (const KelString problem = database.GetString("Problem"); !problem.empty())
            findings.push_back(
                {"databases", State::Problem, database.GetString("Path") + ": " + problem,
                 "start the agent again: it moves the database aside, and the tree refills a new "
                 "one; check the disk"});
    }
    if (findings.empty())
        findings.push_back(
            {"databases", State::Ok, KelFormat("%u databases are sound", ItemCount(answer)), {}});
    return findings;
}

KelVector<Finding> ExamineFullDisk(const Remote& remote) {
    KelContainer answer;
    remote.CallQuietly("FileStoreGetWaiting", answer);
    const KelContainer& waiting = answer.GetContainer("Values");
    if (!waiting.Has("DiskFull")) return {};
    return {{"space", State::Problem,
             "files wait for room; the largest needs " +
                 SizeText(waiting.GetContainer("DiskFull").GetInt64("Needed")),
             "make room on the disk of the store, or raise StoreQuota"}};
}

KelVector<Finding> ExamineRunningAgent(const Remote& remote, const KelString& root) {
    KelContainer status, relay, children, keys;
    const unsigned int result = remote.CallQuietly("AgentGetStatus", status);
    if (result != kKelOk)
        return {{"agent", State::Problem,
                 result == kKelErrorCredentials ? "it refuses the password in its own Agent.ini"
                                                : "it runs, but does not answer at " + remote.Address(),
                 "start it again: " + RestartCommand(root) + "; log/agent.log says why it did not answer"}};
    KelVector<Finding> findings = {{"agent", State::Ok, "it runs and answers at " + remote.Address(), {}}};
    Append(findings, ExamineDatabases(remote));
    Append(findings, ExamineFullDisk(remote));
    remote.CallQuietly("RelayGetValues", relay);
    remote.CallQuietly("RelayListChildren", children);
    Append(findings, ExamineParent(relay.GetContainer("Values")));
    if (remote.CallQuietly("KeysGetValues", keys) == kKelOk)
        Append(findings, ExamineKeys(keys.GetContainer("Values"), std::time(nullptr)));
    Append(findings, ExamineVersions(status.GetContainer("Values").GetString("Version"),
                                     relay.GetContainer("Values"), children, RestartCommand(root)));
    return findings;
}

KelVector<Finding> ExamineAgent(const CommonOptions& common, const KelString& root) {
    const auto lock = LockStoppedRoot(root);
    if (!lock)
        return {{"agent", State::Problem, lock.Error().message, "run this as root or as the agent's user"}};
    if (*lock) {
        KelVector<Finding> findings = {
            {"agent", State::Problem, "it does not run", "start it: " + StartCommand(root)}};
        Append(findings, ExamineStoppedAgent(root));
        return findings;
    }
    const auto remote = Remote::Open(common);
    if (remote) return ExamineRunningAgent(*remote, root);
    return {{"agent", State::Problem, remote.Error().message, "correct the ini file"}};
}

KelContainer FindingList(const KelVector<Finding>& findings) {
    KelContainer list;
    for (const Finding& finding : findings) {
        KelContainer values;
        values.SetString("Check", finding.check);
        values.SetString("State", StateName(finding.state));
        values.SetString("Message", finding.message);
        if (!finding.advice.empty()) values.SetString("Advice", finding.advice);
        list.SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return list;
}

void PrintFindings(const KelVector<Finding>& findings) {
    for (const Finding& finding : findings) {
        std::printf("%-8s %-14s %s\n", StateName(finding.state), finding.check.c_str(),
                    Printable(finding.message).c_str());
        if (!finding.advice.empty()) std::printf("%24s-> %s\n", "", Printable(finding.advice).c_str());
    }
}

}  // namespace

int RunCommand(const CommonOptions& common, const DoctorOptions&) {
    if (common.root.empty()) {
        Complain("the device is examined on the device itself, with --root");
        return kExitUsage;
    }
    const KelString root = CompletePath(common.root);
    const AsOwner owner(root);
    KelVector<Finding> findings = ExamineRoot(root);
    if (findings.front().check != "root") {
        Append(findings, ExamineConfiguration(root));
        Append(findings, ExamineAgent(common, root));
    }
    if (common.json)
        PrintJson(FindingList(findings));
    else
        PrintFindings(findings);
    for (const Finding& finding : findings)
        if (finding.state == State::Problem) return kExitFailed;
    return kExitDone;
}

#include "agent/agent_actions.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "agent/database_actions.h"
#include "agent/password_keeper.h"
#include "kel/container.h"
#include "kelcore/action_db.h"
#include "kelcore/audit.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/version.h"

namespace {

KelString HostName() {
    KelContainer answer;
    if (ActionDbIsActionRegistered("IdentityGetHostname") &&
        CallLocal("IdentityGetHostname", answer) == kKelOk)
        return answer.GetString("HostName");
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

/// Resident memory: the second number of /proc/self/statm, in pages.
std::int64_t MemoryBytes() {
    std::ifstream file("/proc/self/statm");
    std::int64_t total = 0;
    std::int64_t resident = 0;
    return file >> total >> resident ? resident * sysconf(_SC_PAGESIZE) : 0;
}

unsigned int GetStatus(const AgentFacts& facts, KelContainer* container) {
    KelContainer values;
    values.SetString("Version", KelVersion());
    values.SetString("Name", HostName());
    values.SetString("Root", facts.root);
    values.SetInt64("Started", facts.started);
    values.SetInt32("Pid", getpid());
    values.SetInt64("MemoryBytes", MemoryBytes());
    for (std::uint32_t i = 0; i < facts.modules.size(); ++i)
        values.SetString("Modules", facts.modules[i], i);
    container->Clear();
    container->SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int GetMetrics(KelContainer* container) {
    container->Clear();
    container->SetString("Text", KelMetricsCollect());
    return kKelOk;
}

/// In one answer.
constexpr std::int32_t kMostAuditLines = 10'000;

unsigned int GetAudit(KelContainer* container) {
    const std::int64_t since = container->GetInt64("Since");
    const std::int32_t limit = container->GetInt32("Limit", kMostAuditLines);
    container->Clear();
    if (limit < 0) {
        container->SetString("Message", "Limit must not be negative");
        return kKelErrorBadInput;
    }
    for (KelContainer& line : AuditRead(since, static_cast<std::size_t>(std::min(limit, kMostAuditLines))))
        container->SetContainer("Values", std::move(line), KelContainer::kAbsent);
    return kKelOk;
}

unsigned int ListActions(KelContainer* container) {
    const KelString name = container->GetString("Name");
    container->Clear();
    for (KelContainer& action : ActionDbListActions()) {
        if (!name.empty() && action.GetString("Name") != name) continue;
        container->SetString("Actions", action.GetString("Signature"), KelContainer::kAbsent);
        container->SetContainer("Values", std::move(action), KelContainer::kAbsent);
    }
    if (!container->IsEmpty() || name.empty()) return kKelOk;
    container->SetString("Message", "There is no action " + name);
    return kKelErrorBadInput;
}

}  // namespace

void RegisterAgentActions(AgentFacts facts, PasswordKeeper& passwords) {
    RegisterDatabaseActions(facts.root);
    RegisterPasswordActions(passwords);
    ActionDbRegisterAction(
        {.signature = "AgentGetStatus",
         .purpose = "Says which agent this is, since when it runs, and what it uses.",
         .outputs = "container Values {string Version, string Name (of the host), string Root, int64 Started "
                    "(seconds since the epoch), int32 Pid, int64 MemoryBytes (resident), string Modules[]}",
         .callers = KelCallers::Operator},
        [facts = std::move(facts)](KelContainer* container) { return GetStatus(facts, container); },
        kAgentHandle);
    ActionDbRegisterAction(
        {.signature = "AgentGetMetrics",
         .purpose = "Gives the numbers for a monitoring system; also the answer to GET /metrics.",
         .outputs = "string Text (in the Prometheus text exposition format)",
         .callers = KelCallers::Operator | KelCallers::Scraper},
        GetMetrics, kAgentHandle);
    ActionDbRegisterAction(
        {.signature = "AgentGetAudit",
         .purpose = "Says who changed settings, windows, publications and devices of this device, and how.",
         .inputs = "int64 Since? (seconds since the epoch), int32 Limit? (the latest)",
         .outputs =
             "container Values[]? {int64 Time (seconds since the epoch), string Operator (as the caller "
             "says), string Address, string Master? (HOST:PORT, whose operator calls through it), string "
             "Device? (that the call was passed on to), string Action, container Arguments?, int64 Result? "
             "(absent: not known yet), string Message?}",
         .results = "1 a negative limit",
         .callers = KelCallers::Operator},
        GetAudit, kAgentHandle);
    ActionDbRegisterAction(
        {.signature = "AgentListActions ()",
         .purpose = "Lists the actions that can be called here, with what each takes, gives and does.",
         .inputs = "string Name? (of the only action wanted)",
         .outputs =
             "string Actions[] (the signatures), container Values[] {string Name, string Signature, string "
             "Module, string Purpose, container Inputs[]? {string Type, string Name, bool Optional, bool "
             "Several, string Remark?, container Members[]?}, container Outputs[]?, string Results, string "
             "Callers, bool Changes}",
         .results = "1 there is no such action",
         .callers = KelCallers::Operator},
        ListActions, kAgentHandle);
}

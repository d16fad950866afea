#include "agent/agent_actions.h"

#include <unistd.h>

#include <fstream>

#include "kel/container.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

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
    values.SetString("Version", KEL_VERSION);
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

unsigned int ListActions(KelContainer* container) {
    container->Clear();
    std::uint32_t i = 0;
    for (const KelString& signature : ActionDbListActions())
        container->SetString("Actions", signature, i++);
    return kKelOk;
}

}  // namespace

void RegisterAgentActions(AgentFacts facts) {
    ActionDbRegisterAction(
        "AgentGetStatus ()",
        [facts = std::move(facts)](KelContainer* container) { return GetStatus(facts, container); },
        kAgentHandle);
    ActionDbRegisterAction("AgentListActions ()", ListActions, kAgentHandle);
}

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>

#include "agent/action_document.h"
#include "agent/agent.h"
#include "agent/agent_config.h"
#include "agent/agent_options.h"
#include "agent/heap.h"

namespace {

int Complain(const KelError& error, int exitCode) {
    std::fprintf(stderr, "kelagent: %s\n", error.message.c_str());
    return exitCode;
}

int Check(const AgentConfig& config, const KelString& modulesDir) {
    bool isUsable = true;
    for (const IniFault& fault : FindConfigFaults(config, modulesDir)) {
        const bool isNote = fault.weight == IniFault::Weight::Note;
        std::printf("%s%s\n", isNote ? "warning: " : "", fault.text.c_str());
        isUsable = isUsable && isNote;
    }
    if (isUsable) std::puts("The configuration is usable.");
    return isUsable ? kExitClean : kExitFailure;
}

int DescribeActions(const KelString& modulesDir) {
    const auto text = ActionsInMarkdown(modulesDir);
    if (!text) return Complain(text.Error(), kExitFailure);
    std::fputs(text->c_str(), stdout);
    return kExitClean;
}

int Run(const AgentOptions& options) {
    if (options.actions) return DescribeActions(options.modulesDir);
    auto config = LoadAgentConfig(options.root);
    if (!config) return Complain(config.Error(), kExitFailure);
    if (options.check) return Check(*config, options.modulesDir);
    const auto lock = LockRoot(options.root);
    if (!lock) return Complain(lock.Error(), lock.Error().code == kRootLocked ? kExitLocked : kExitFailure);
    return Agent(std::move(*config), options.modulesDir).Run();
}

}  // namespace

int main(int count, char** arguments) {
    LimitHeaps();
    int exitCode = kExitUsage;
    const auto options = ParseAgentOptions(count, arguments, exitCode);
    if (!options) return exitCode;
    try {
        // The spread of retries and made-up names take rand(): unseeded, it gives the same numbers on every
        // device and after every start.
        std::srand(std::random_device{}());
        return Run(*options);
    } catch (const std::exception& error) {
        return Complain({kKelFailure, error.what()}, kExitFailure);
    }
}

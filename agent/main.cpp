#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>

#include "agent/agent.h"
#include "agent/agent_config.h"
#include "agent/agent_options.h"

namespace {

constexpr int kHeaps = 4;
constexpr int kLargeBytes = 128 << 10;

/// Keeps the memory of the process close to what it uses. By default each thread may get a heap of its own,
/// up to eight for each core, and every heap keeps what it has freed up to twice the largest buffer that was
/// ever released: with buffers of 512 KiB for transfers, four fifths of the agent's memory were free. Few
/// threads work at a time, so they can share a few heaps. Large buffers go back to the system at once.
///
/// Before the first thread is started.
void LimitHeaps() {
    mallopt(M_ARENA_MAX, kHeaps);
    mallopt(M_MMAP_THRESHOLD, kLargeBytes);  // setting these also ends their growing with the buffers
    mallopt(M_TRIM_THRESHOLD, kLargeBytes);
}

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

int Run(const AgentOptions& options) {
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

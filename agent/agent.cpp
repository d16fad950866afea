#include "agent/agent.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "agent/agent_actions.h"
#include "agent/agent_options.h"
#include "agent/heap.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/http/client.h"
#include "kelcore/stopping.h"

namespace {

constexpr std::chrono::seconds kReleasePause{10};

KelAgentSettings Settings(const AgentConfig& config, std::shared_ptr<KelDebugContext> context,
                          mode_t programUmask) {
    return {config.ConfigDir(), config.DataDir(),   config.name, config.httpPassword,
            config.address,     std::move(context), programUmask};
}

void ConfigureSecurity(const AgentConfig& config) {
    AgentSecuritySslContext ssl;
    AgentSecurityPacContext pac;
    if (config.sslForce) ssl = std::make_shared<const AgentSecuritySslSettings>(config.ssl);
    if (config.pacForce)
        pac = std::make_shared<const AgentSecurityPacSettings>(AgentSecurityPacSettings{config.pacScript});
    AgentSecurityConfigure(std::move(ssl), std::move(pac));
    AgentSecuritySetKeys(config.keys);
}

}  // namespace

Agent::Agent(AgentConfig config, KelString modulesDir)
    : config_(std::move(config)), modulesDir_(std::move(modulesDir)), log_("Agent", "Agent") {}

int Agent::Run() {
    // Whatever the agent creates is for its owner only unless the code says otherwise; programs that it runs
    // for files keep what it was started with.
    const mode_t programUmask = umask(077);
    auto context =
        MakeDebugContext(config_.LogFile(), config_.logMaxBytes, config_.logFiles, true, config_.logLevel);
    log_.SetContext(context);
    KelAgentConfigure(Settings(config_, context, programUmask));
    ConfigureSecurity(config_);
    for (const IniFault& fault : config_.faults)
        log_.Warning("%S\n", fault.text);
    for (const KelString& line : CloseRoot(config_))
        log_.Print("%S\n", line);

    // Transfers are cancelled first, so that the threads in them end at once.
    StopSignals stop(
        [] {
            KelAgentSetStopping(true);
            HttpClientCancelAll(true);
        },
        log_);
    const bool started = Start(stop);
    if (started && !stop.IsRequested()) {
        LogReady();
        KelContainer none;
        CallbackDbTrigger("AgentCallbackReady", {}, none);
        while (!stop.WaitFor(kReleasePause))
            ReleaseFreeMemory();
    }
    HttpClientCancelAll(true);
    Stop();
    log_.Print("Stopped\n");
    return started ? kExitClean : kExitFailure;
}

bool Agent::Start(const StopSignals& stop) {
    log_.Print("kelagent %s starting on %S\n", KEL_VERSION, config_.root);
    if (!LoadModules()) return false;
    RegisterAgentActions({config_.root, std::time(nullptr), config_.modules});
    return RegisterModules() && InitialiseModules(stop) && ActivateModules(stop);
}

bool Agent::LoadModules() {
    for (const KelString& name : config_.modules) {
        auto module = LoadedModule::Load(modulesDir_, name);
        if (!module) {
            log_.Error("%S\n", module.Error().message);
            return false;
        }
        log_.Print("Loaded %S\n", module->DisplayName());
        // A module may number the interface that it serves: what runs here is the version above.
        log_.Detail("%S gives its version as %S\n", module->DisplayName(), module->Version());
        modules_.push_back(std::move(*module));
    }
    return true;
}

bool Agent::RegisterModules() {
    for (LoadedModule& module : modules_) {
        // Counted even when it fails: part of it may be registered.
        ++registered_;
        if (module.Register()) continue;
        log_.Error("Module %S could not be registered\n", module.Name());
        return false;
    }
    return true;
}

bool Agent::InitialiseModules(const StopSignals& stop) {
    for (LoadedModule& module : modules_) {
        if (stop.IsRequested()) return true;
        if (!module.Run(KelModuleOperation::Initialise)) {
            log_.Error("Module %S could not be initialised; its own log lines say why\n", module.Name());
            return false;
        }
        ++initialised_;
    }
    return true;
}

/// The agent runs without a module that cannot be activated, unless that is the server: no device could call
/// it.
bool Agent::ActivateModules(const StopSignals& stop) {
    for (LoadedModule* module : ServersLast()) {
        if (stop.IsRequested()) return true;
        if (module->Run(KelModuleOperation::Activate)) continue;
        if (module->IsServer()) {
            log_.Error("Module %S could not be activated; its own log lines say why\n", module->Name());
            return false;
        }
        log_.Error("Module %S could not be activated; the agent goes on without it\n", module->Name());
    }
    return true;
}

KelVector<LoadedModule*> Agent::ServersLast() {
    KelVector<LoadedModule*> order;
    for (LoadedModule& module : modules_)
        order.push_back(&module);
    std::stable_partition(order.begin(), order.end(),
                          [](const LoadedModule* module) { return !module->IsServer(); });
    return order;
}

void Agent::LogReady() {
    KelString address = config_.address + ":0";
    for (LoadedModule& module : modules_)
        if (module.IsServer()) address = module.ServerAddress();
    log_.Print("Ready at %S\n", address);
}

void Agent::Stop() {
    CleanupModules();
    for (; registered_ > 0; --registered_) {
        LoadedModule& module = modules_[registered_ - 1];
        module.Run(KelModuleOperation::Unregister);
        ActionDbUnregisterAll(module.Name().c_str());
    }
    ActionDbUnregisterAll(kAgentHandle);
    HttpClientCloseIdleConnections();
}

void Agent::CleanupModules() {
    KelVector<LoadedModule*> order;
    for (std::size_t i = initialised_; i > 0; --i) {
        LoadedModule& module = modules_[i - 1];
        order.insert(module.IsServer() ? order.begin() : order.end(), &module);
    }
    for (LoadedModule* module : order) {
        log_.Detail("Cleaning up %S\n", module->Name());
        module->Run(KelModuleOperation::Cleanup);
    }
    initialised_ = 0;
}

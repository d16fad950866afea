#include "agent/agent.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string_view>

#include "agent/agent_actions.h"
#include "agent/agent_metrics.h"
#include "agent/agent_options.h"
#include "agent/database_actions.h"
#include "agent/heap.h"
#include "agent/service_manager.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/db/connection.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/client.h"
#include "kelcore/http/url.h"
#include "kelcore/local_socket.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/stopping.h"
#include "kelcore/version.h"

namespace {

constexpr std::chrono::seconds kReleasePause{10};

/// How long the agent's own server may take for a call.
constexpr int kAliveSeconds = 10;
constexpr std::string_view kAnyAddress = "0.0.0.0";

/// The device's role and its parent, for the status line; empty where no module knows them.
KelString PlaceInTree() {
    KelContainer answer;
    if (!ActionDbIsActionRegistered("RelayGetValues") || CallLocal("RelayGetValues", answer) != kKelOk)
        return {};
    const KelContainer& relay = answer.GetContainer("Values");
    const KelString role = relay.GetString("Role");
    if (relay.GetString("ParentName").empty()) return ", " + role;
    return ", " + role + " below " + relay.GetString("ParentName") + ":" + relay.GetString("ParentPort") +
           (relay.GetBool("ParentSync") ? ""
                                        : ", which does not answer: " + relay.GetString("ParentProblem"));
}

KelAgentSettings Settings(const AgentConfig& config, const KelString& modulesDir,
                          std::shared_ptr<KelDebugContext> context, mode_t programUmask) {
    return {config.ConfigDir(),  config.DataDir(), config.name,
            config.httpPassword, config.address,   std::move(context),
            programUmask,        modulesDir,       config.root + kAgentSocketFolder};
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
    KelAgentConfigure(Settings(config_, modulesDir_, context, programUmask));
    ConfigureSecurity(config_);
    passwords_.Begin(config_, std::time(nullptr));
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
    if (started && !stop.IsRequested()) Work(stop);
    HttpClientCancelAll(true);
    Stop();
    log_.Print("Stopped\n");
    return started ? kExitClean : kExitFailure;
}

void Agent::Work(StopSignals& stop) {
    ServiceManager service([this] { return IsAlive(); });
    const KelString ready = "Ready at " + ServerAddress();
    log_.Print("%S\n", ready);
    DBConnection::RemoveUpgradeCopies();
    KelContainer none;
    CallbackDbTrigger("AgentCallbackReady", {}, none);
    service.Ready(ready);
    while (!stop.WaitFor(service.Pause(kReleasePause))) {
        ReleaseFreeMemory();
        passwords_.Step(std::time(nullptr));
        service.Step();
        if (service.IsWatched()) service.Status(ready + PlaceInTree());
    }
    service.Stopping();
}

bool Agent::Start(const StopSignals& stop) {
    log_.Print("kelagent %s starting on %S\n", KelVersion(), config_.root);
    if (!LoadModules()) return false;
    RemoveBackupCopies(config_.root);
    const AgentFacts facts = {config_.root, std::time(nullptr), config_.modules};
    RegisterAgentActions(facts, passwords_);
    RegisterAgentMetrics(facts);
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

KelString Agent::ServerAddress() {
    for (LoadedModule& module : modules_)
        if (module.IsServer()) return module.ServerAddress();
    return config_.address + ":0";
}

/// The agent works when its modules do and its server answers a call, which needs the server's threads, its
/// workers and the action database.
bool Agent::IsAlive() {
    for (LoadedModule& module : modules_) {
        if (module.IsAlive()) continue;
        failures_.Failed(KelDebugLevel::Error, "alive",
                         "Module " + module.Name() + " does not work any more");
        return false;
    }
    KelString address = ServerAddress();
    if (address.ends_with(":0")) return true;  // an agent without a server
    if (address.starts_with(kAnyAddress)) address.replace(0, kAnyAddress.size(), "127.0.0.1");
    KelContainer answer;
    const unsigned int result =
        ActionDbInvokeContainer("watchdog", UrlForAgent(config_.name, KelAgentGetHttpPassword(), address),
                                "AgentGetStatus", answer, 0, kAliveSeconds, kAliveSeconds, nullptr);
    // Whatever it answers, the server does.
    if (result == kKelErrorUnreachable) {
        failures_.Failed(KelDebugLevel::Error, "alive", "The server at " + address + " does not answer");
        return false;
    }
    failures_.Succeeded("alive", "The agent works again");
    return true;
}

void Agent::Stop() {
    CleanupModules();
    for (; registered_ > 0; --registered_) {
        LoadedModule& module = modules_[registered_ - 1];
        module.Run(KelModuleOperation::Unregister);
        ActionDbUnregisterAll(module.Name().c_str());
        KelMetricsUnregisterAll(module.Name().c_str());
    }
    ActionDbUnregisterAll(kAgentHandle);
    KelMetricsUnregisterAll(kAgentHandle);
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

#pragma once

#include "agent/agent_config.h"
#include "agent/module_loader.h"
#include "agent/password_keeper.h"
#include "agent/stop_signals.h"
#include "kel/debug.h"
#include "kel/types.h"
#include "kelcore/failure_log.h"

/// One agent: loads the modules and drives them through their life. For the main thread.
///
/// Every module is registered before the first is initialised, and initialised before the first is activated,
/// each time in the configured order, but a module that serves calls from other devices is activated last and
/// cleaned up first, so that no such call meets a module that is not ready yet or going down. At the end the
/// others follow in reverse order, each of which can still call the actions of those before it; then all are
/// unregistered in reverse order.
class Agent {
  public:
    Agent(AgentConfig config, KelString modulesDir);

    /// Runs until a stop signal; an exit code of agent/agent_options.h.
    int Run();

  private:
    bool Start(const StopSignals& stop);
    bool LoadModules();
    bool RegisterModules();
    bool InitialiseModules(const StopSignals& stop);
    bool ActivateModules(const StopSignals& stop);
    KelVector<LoadedModule*> ServersLast();
    KelString ServerAddress();
    bool IsAlive();
    void Work(StopSignals& stop);
    void Stop();
    void CleanupModules();

    AgentConfig config_;
    KelString modulesDir_;
    KelDebug log_;
    KelFailureLog failures_{log_};
    PasswordKeeper passwords_{log_};
    KelVector<LoadedModule> modules_;
    std::size_t registered_ = 0;   ///< how many modules, from the first, are registered
    std::size_t initialised_ = 0;  ///< and how many initialised
};

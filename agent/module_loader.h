#pragma once

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/module.h"

/// A module's shared library, loaded for the rest of the process: handlers and threads of a module may still
/// be on some stack when it has been unregistered, so the library is never unloaded. For the agent's main
/// thread; the operations block as long as the module takes.
class LoadedModule {
  public:
    /// Loads NAME.so from `modulesDir` (ends with "/") and finds its entry function.
    static KelResult<LoadedModule> Load(const KelString& modulesDir, const KelString& name);

    const KelString& Name() const { return name_; }

    /// Runs an operation without a text; true when the module reports success.
    bool Run(KelModuleOperation operation);

    /// Register: the module's name is the registration handle.
    bool Register();

    /// True for a module that serves calls from other devices, see KelModuleOperation::GetServerAddress.
    bool IsServer() const { return isServer_; }

    /// The display name and the version that the module gives for itself; empty when it gives none.
    KelString DisplayName() { return Text(KelModuleOperation::GetDisplayName); }
    KelString Version() { return Text(KelModuleOperation::GetVersion); }

    /// See KelModuleOperation::CheckAlive; true for a module that does not know the operation.
    bool IsAlive();

    /// What the module finds in its ini file; see KelModuleOperation::FindIniFaults. Nothing from a module
    /// that does not examine its file.
    KelVector<IniFault> FindIniFaults(const KelString& path);

    /// "address:port" of a server; empty while it is not known.
    KelString ServerAddress() { return Text(KelModuleOperation::GetServerAddress); }

  private:
    LoadedModule(KelString name, KelModuleMain entry);
    KelString Text(KelModuleOperation operation);

    KelString name_;
    KelModuleMain entry_;
    bool isServer_ = false;
};

#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "kel/debug.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"

/// Operations of a module's entry function, in the order in which the agent drives them: Register,
/// Initialise, Activate, then, at the end, Cleanup and Unregister. Suspend may come between Activate and
/// Cleanup; the operations that give a text may come at any time.
enum class KelModuleOperation : unsigned int {
    Register = 1,
    Unregister = 2,
    Initialise = 3,
    Activate = 4,
    Cleanup = 5,
    GetDisplayName = 6,
    GetVersion = 7,
    Suspend = 9,
    /// Text "address:port": where the module serves calls from other devices, empty while that is not known.
    /// A module that serves none answers kModuleUnknownOperation. One that does is activated last and cleaned
    /// up first, so that no call from outside meets a module that is not ready, and the agent stops when it
    /// cannot be activated.
    GetServerAddress = 10,
    /// Examines an ini file of the module, whose path is in the buffer, and appends what is wrong in it to
    /// the KelVector<IniFault> whose address is the argument. Before Register or at any time; changes
    /// nothing.
    FindIniFaults = 11,
    /// Asks an activated module whether it still works. One that hangs does not return; kModuleFailure: it
    /// cannot go on until the agent is started again.
    CheckAlive = 12,
};

/// Results of the entry function.
inline constexpr unsigned int kModuleSuccess = 1;
inline constexpr unsigned int kModuleFailure = 2;
inline constexpr unsigned int kModuleUnknownOperation = 5;

/// Size in bytes of the buffer that the operations which give a text write it to, terminated.
inline constexpr std::size_t kModuleTextBytes = 256;

/// A module's entry function. `buffer` holds the registration handle (a terminated text) for Register, a path
/// for FindIniFaults, and receives the text of GetDisplayName, GetVersion and GetServerAddress. Called on the
/// agent's main thread only.
using KelModuleMain = unsigned int (*)(unsigned int operation, long argument, char* buffer);

/// The name under which a module's shared library exports its entry function, unmangled.
inline constexpr const char* kModuleMainSymbol = "ModuleMain";

/// The frame of a module: derive, override what is needed, and export with KEL_MODULE_MAIN. The overridden
/// functions run on the agent's main thread and may throw; that fails the operation.
class KelModule {
  public:
    /// `name` is the module's name: of its log, its ini file ("Name.ini" in the configuration folder) and its
    /// data folder.
    KelModule(const char* name, const char* displayName);
    /// A module that keeps its log itself; `log` outlives it.
    KelModule(const char* name, KelDebug& log);
    virtual ~KelModule() = default;
    KelModule(const KelModule&) = delete;
    KelModule& operator=(const KelModule&) = delete;

    /// Runs one operation; exceptions that the overridden functions throw are logged and give kModuleFailure.
    unsigned int Run(unsigned int operation, long argument, char* buffer);

  protected:
    virtual void Register(const char* handle) = 0;  ///< register actions and callbacks
    virtual bool Initialise() { return true; }      ///< read the ini file; false stops the agent
    /// Start threads. False: the agent runs without the module, or stops if the module serves calls.
    virtual bool Activate() { return true; }
    virtual bool Suspend() { return true; }
    /// See KelModuleOperation::CheckAlive. Takes the locks that the module's threads work under, one at a
    /// time.
    virtual bool IsAlive() { return true; }
    virtual void Cleanup() {}     ///< stop threads; actions may still be called afterwards
    virtual void Unregister() {}  ///< remove callbacks; the agent removes the actions

    virtual KelString Version() const;  ///< the agent's version unless overridden
    /// See KelModuleOperation::GetServerAddress; nothing from a module that serves no calls.
    virtual std::optional<KelString> ServerAddress() const { return std::nullopt; }

    /// All entries of the module's ini file; without any, nothing in the file is checked. Before Initialise,
    /// unusable values are logged, and a vital one fails the operation.
    virtual std::span<const IniSetting> IniSettings() const { return {}; }
    /// Appends what is wrong between several entries, each of which is usable by itself.
    virtual void CheckIni(const IniFile&, KelVector<IniFault>&) const {}

    /// The module's ini file.
    KelString IniPath() const;
    /// The ini file that came with the module: its Sql sections describe the module's database. Unlike the
    /// one in the configuration folder, it is replaced when the program is upgraded.
    KelString SchemaPath() const;
    /// The module's data folder, without "/" at its end. Not created by this call.
    KelString DataPath() const;
    KelDebug& Log() { return log_; }

  private:
    unsigned int RunOperation(KelModuleOperation operation, long argument, char* buffer);
    KelVector<IniFault> FindFaults(const KelString& path) const;
    bool IniAllowsStart();

    KelString name_;
    std::optional<KelDebug> ownLog_;
    KelDebug& log_;
};

/// Copies a text into a module's text buffer, cut to kModuleTextBytes with its terminator.
void KelModuleSetText(char* buffer, std::string_view text);

/// Exports the entry function of a shared library whose module is the class `Module`, one static instance.
#define KEL_MODULE_MAIN(Module)                                                                              \
    extern "C" __attribute__((visibility("default"))) unsigned int ModuleMain(unsigned int operation,        \
                                                                              long argument, char* buffer) { \
        static Module module;                                                                                \
        return module.Run(operation, argument, buffer);                                                      \
    }

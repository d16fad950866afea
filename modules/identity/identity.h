#pragma once

#include <atomic>
#include <cstdint>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kelcore/module.h"
#include "modules/identity/device_values.h"
#include "modules/identity/identity_report.h"

/// The identity module: who this device is. Actions:
///
/// - IdentityGetGUID -> GUID
/// - IdentityGetHostname -> HostName
/// - IdentityGetValues -> Values{GUID, HostName, IPAddress, MACAddress, NetworkMask, PreferIPAddresses,
///   ConsoleId}
/// - AgentGetIPAddress -> IPAddress
/// - IdentityValidateGUIDScheme: adopts the scheme of the parent's GUID if that is known. The relay module
/// calls
///   it before it reports that the parent is in sync.
///
/// - IdentitySetConsole (ConsoleId): the console whose devices report to it has this identifier; for modules
/// of
///   this device. The identifier is part of the identity, which is therefore sent again when it changes, and
///   of the Values above, where the devices below find it.
///
/// Events: IdentityCallbackGUIDChange{GUID, OldGUID} and IdentityCallbackIPChange{NewIPAddress,
/// OldIPAddress}, triggered without any lock held. The handlers return 0, or 18 when a new GUID could not be
/// written to disk. The same values go up the tree as the identity file (IdentityReport).
class Identity : public KelModule {
  public:
    Identity();
    ~Identity() override;

    /// Reads the ini file and the interfaces again and triggers IdentityCallbackIPChange for a new address.
    /// The first half of the watcher's step.
    void CheckAddress();

    /// Sends the identity file when one is due at `now` (seconds since the epoch); true while it waits for
    /// another module. The second half of the watcher's step.
    bool ReportIdentity(std::int64_t now);

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    void Unregister() override;
    std::span<const IniSetting> IniSettings() const override { return IdentityIniSettings(); }

  private:
    KelResult<DeviceValues> ReadValues();
    void LogOnce(const KelString& problem);
    unsigned int GetGuid(KelContainer* arguments);
    unsigned int GetHostname(KelContainer* arguments);
    unsigned int GetValues(KelContainer* arguments);
    unsigned int GetIpAddress(KelContainer* arguments);
    unsigned int ValidateGuidScheme(KelContainer* arguments);
    unsigned int SetConsole(KelContainer* arguments);
    unsigned int ParentInSync(KelContainer* arguments);
    bool AdoptScheme(const KelString& parentGuid, KelString& oldGuid, KelString& newGuid);

    KelString guidPath_;
    /// Serialises scheme changes; held across the write to disk, taken before mutex_.
    KelMutex mutexAdopt_;
    KelString adoptFailure_ KEL_GUARDED_BY(mutexAdopt_);  ///< last one logged
    KelMutex mutex_;                                      ///< never held across a call or a write
    KelString guid_ KEL_GUARDED_BY(mutex_);
    KelString consoleId_ KEL_GUARDED_BY(mutex_);  ///< empty until it is known
    DeviceValues values_ KEL_GUARDED_BY(mutex_);
    KelString problem_ KEL_GUARDED_BY(mutex_);      ///< the last one logged
    IdentityReport report_;                         ///< only the watcher's thread uses it
    std::atomic<std::uint32_t> checkSeconds_ = 30;  ///< between two steps of the watcher
    KelPeriodicThread watcher_;
};

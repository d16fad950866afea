#pragma once

#include <atomic>
#include <cstdint>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kelcore/module.h"
#include "modules/identity/device_values.h"
#include "modules/identity/identity_report.h"

/// The identity module: who this device is. Its actions are listed in Register. The relay module has the
/// scheme of the parent's GUID adopted before it reports that the parent is in sync.
///
/// Events: IdentityCallbackGUIDChange{GUID, OldGUID} and IdentityCallbackIPChange{NewIPAddress,
/// OldIPAddress}, triggered without any lock held. The values of IdentityGetValues go up the tree as the
/// identity file (IdentityReport), again when they change.
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

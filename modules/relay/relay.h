#pragma once

#include <optional>

#include "kel/container.h"
#include "kel/periodic_thread.h"
#include "kelcore/left_overs.h"
#include "kelcore/module.h"
#include "modules/relay/child_versions.h"
#include "modules/relay/package_copies.h"
#include "modules/relay/parent_link.h"
#include "modules/relay/relay_settings.h"
#include "modules/relay/unconnected_replay.h"

class KelMetricsPage;

/// The relay module: the role of this device and its parent. Its actions are listed in Register. Every result
/// but 0 comes with a text Message.
///
/// The event RelayCallbackParentChange (no values) is triggered when the device has got another parent, by
/// that action or in its ini file. RelayCallbackParentInSync is triggered when the parent answers again; its
/// value FormerParent ("host:port") names another device that was the parent before.
///
/// Once the parent answers (on a master always), the requests that the file store kept while the device was
/// disconnected are handed back to it (UnconnectedReplay).
class Relay : public KelModule {
  public:
    Relay();
    ~Relay() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    void Unregister() override;
    std::span<const IniSetting> IniSettings() const override { return RelayIniSettings(); }
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override {
        CheckRelayIni(ini, faults);
    }

  private:
    unsigned int GetValues(KelContainer* arguments);
    unsigned int ListChildren(KelContainer* arguments);
    unsigned int SetParent(KelContainer* arguments);
    unsigned int ReceiveFile(KelContainer* arguments);
    unsigned int ClearPackage(KelContainer* arguments);
    unsigned int CallDevice(KelContainer* arguments);
    unsigned int Answer(KelContainer* arguments, const KelStatus& status);
    void CollectMetrics(KelMetricsPage& page);
    void ReplayUnconnected();
    void ReportChange();
    void ReportInSync(const KelString& formerParent);

    RelaySettings settings_;  ///< written at initialisation only
    PackageCopies packages_;
    std::optional<KelLeftOverFolder> leftOvers_;  ///< between Initialise and Cleanup
    UnconnectedReplay replay_;                    ///< only the replay thread uses it
    KelPeriodicThread replayThread_;
    ParentLink parentLink_;
    ChildVersions childVersions_;
};

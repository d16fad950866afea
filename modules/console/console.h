#pragma once

#include <optional>
#include <shared_mutex>

#include "kel/container.h"
#include "kelcore/left_overs.h"
#include "kelcore/module.h"
#include "modules/console/console_database.h"
#include "modules/console/device_call.h"
#include "modules/console/device_directory.h"
#include "modules/console/device_groups.h"
#include "modules/console/explanation.h"
#include "modules/console/group_actions.h"
#include "modules/console/preview.h"
#include "modules/console/publication_store.h"
#include "modules/console/publisher.h"
#include "modules/console/stage_store.h"
#include "modules/console/stages.h"
#include "modules/console/upstream_intake.h"
#include "modules/console/withdrawal_store.h"
#include "modules/console/withdrawer.h"

/// The console module of the master: knows the devices of the tree, publishes files to them and keeps track
/// of the publications. Its actions are listed in Register; every result but 0 comes with a text Message.
/// What ConsolePublish takes as Device, and as Stage, is described at ChooseTargets and ReadStagePercents.
class Console : public KelModule {
  public:
    Console();

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    void Unregister() override;
    std::span<const IniSetting> IniSettings() const override;
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override;

  private:
    unsigned int ListDevices(KelContainer* arguments);
    unsigned int ListPublications(KelContainer* arguments);
    unsigned int Publish(KelContainer* arguments);
    unsigned int Preview(KelContainer* arguments);
    unsigned int Explain(KelContainer* arguments);
    unsigned int Withdraw(KelContainer* arguments);
    unsigned int RemoveDevice(KelContainer* arguments);
    unsigned int RevokeKeys(KelContainer* arguments);
    unsigned int CallDevice(KelContainer* arguments);
    unsigned int ReceiveUpstream(KelContainer* arguments);
    KelResult<KelContainer> ReadTargets(const KelString& id);

    ConsoleDatabase database_;
    DeviceStore deviceStore_;
    PublicationStore publications_;
    DeviceDirectory directory_;
    DeviceGroups groups_;
    GroupActions groupActions_;
    WithdrawalStore withdrawals_;
    std::shared_mutex packages_;
    Publisher publisher_;
    Withdrawer withdrawer_;
    std::optional<KelLeftOverFolder> incomingFolder_, packageFolder_;  ///< between Initialise and Cleanup
    StageStore stageStore_;
    Stages stages_;
    UpstreamIntake intake_;
    Explainer explainer_;
    Previewer previewer_;
    DeviceCaller caller_;
};

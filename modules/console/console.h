#pragma once

#include <shared_mutex>

#include "kel/container.h"
#include "kelcore/module.h"
#include "modules/console/console_database.h"
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
/// of the publications. Actions:
///
/// - ConsoleListDevices -> Values[i]{GUID, Name, Role, Address, Parent, PathName, FirstSeen, LastSeen,
///   SilentSince (int64, seconds since the epoch, 0 for never)}, the master first
/// - ConsolePublish (FilePath, FileType, FileLabel; optional FileName, Device[i] (see
///   ChooseTargets), Priority, Bypass, WakeOnLan, KeepCopy, FileInfo, Stage[i]
///   (see ReadStagePercents), StopAtFailures (int32)) -> PublicationId, FileChecksum,
///   FileSize (int64, bytes), Targets, Delivered, Failed, Pending (int32: the targets by state before the
///   file is offered; see DecideTargets), LeftOut (int32: devices that "all" could not reach). A call from
///   another device is refused, because it names a file of this one.
/// - ConsolePreview (FilePath[i], FileName[i], FileType, FileLabel, Device[i], Stage[i]) -> what
/// ConsolePublish
///   would do; see Previewer. Refused to other devices.
/// - ConsoleListPublications (optional PublicationId[i], CountsOnly) -> Values[i]{PublicationId, FileType,
///   FileLabel, FileName, FileChecksum, FileSize, CreateTime (int64), Priority, Targets, Delivered, Failed,
///   Withdrawn, Removed, Pending (int32)}, with State, Stage and others of those in stages (see Stages), the
///   latest first, all or those named, which must be known; for one named publication and unless CountsOnly
///   also Devices[i]{GUID, Name, Status, Time (int64), Message}
/// - ConsoleExplain (PublicationId; optional Device, a GUID or name) -> Values[i], LeftOut: why pending
/// targets
///   do not have the file, asked live through the tree; see Explainer
/// - ConsoleListGroups and those that change groups of devices; see GroupActions
/// - ConsoleWithdraw (PublicationId) -> Values: the publication as ConsoleListPublications lists it; see
///   Withdrawer
/// - ConsoleRemoveDevice (Device, a GUID or name) -> GUID, Name; see Withdrawer
/// - ConsoleResume (PublicationId, Next): goes on with a publication in stages; see Stages
/// - ConsoleReceiveUpstream: subscribed to the event FileStoreCallbackCopyUpstream; see UpstreamIntake.
///   Only for this device.
/// - QuarnelDbObjectListTypes -> Types[i]; QuarnelDbRunScript: not available here. Other modules recognise a
///   master by their registration.
///
/// Results: 0; 1 for an unusable input; 17 not available; 18 when a file, folder or the database cannot be
/// written; the file store's result when it refuses the file. Every result but 0 comes with a text Message.
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
    StageStore stageStore_;
    Stages stages_;
    UpstreamIntake intake_;
    Explainer explainer_;
    Previewer previewer_;
};

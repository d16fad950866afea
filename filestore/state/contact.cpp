#include "filestore/state/contact.h"

#include <chrono>
#include <ctime>

#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/db/withdrawals_table.h"
#include "filestore/state/caller.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/container.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/http/client.h"
#include "kelcore/http/url.h"

using namespace filestore;

namespace {

constexpr const char* kContactAction = "FileStoreDeviceContact";

// Seconds; short, because the relay module waits.
constexpr int kConnectTimeout = 3;
constexpr int kCallTimeout = 15;

/// When each device was last heard from. A device that calls but cannot be called would otherwise be tried
/// after every one of its calls.
class LastSigns {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// True when it was last true a while ago, or never.
    bool Note(const KelString& deviceUrl) {
        const KelLock lock(mutex_);
        Sign& sign = Find(deviceUrl);
        const Time now = std::chrono::steady_clock::now();
        if (sign.isNoted && now - sign.noted < kGap) return false;
        sign.isNoted = true;
        sign.noted = now;
        return true;
    }

    /// What waits for the device is made due.
    void SetEndOfWaiting(const KelString& deviceUrl) {
        const KelLock lock(mutex_);
        Find(deviceUrl).endOfWaiting = std::chrono::steady_clock::now();
    }

    bool HasEndedWaitingSince(const KelString& deviceUrl, Time time) const {
        const KelLock lock(mutex_);
        const auto known = signs_.find(deviceUrl);
        return known != signs_.end() && known->second.endOfWaiting > time;
    }

  private:
    struct Sign {
        Time endOfWaiting;
        Time noted;
        bool isNoted = false;
    };
    static constexpr auto kGap = std::chrono::seconds(10);
    static constexpr std::size_t kMostDevices = 50000;

    Sign& Find(const KelString& deviceUrl) KEL_REQUIRES(mutex_) {
        if (signs_.size() >= kMostDevices) signs_.clear();  // callers may name themselves as they like
        return signs_[deviceUrl];
    }

    mutable KelMutex mutex_;
    KelHash<KelString, Sign> signs_ KEL_GUARDED_BY(mutex_);
};

LastSigns lastSigns;

void EndWaitingFor(const KelString& deviceUrl) {
    lastSigns.SetEndOfWaiting(deviceUrl);
    const bool isWithdrawalDue = MakeWithdrawalsDue(deviceUrl);
    if (MakeTargetsDue(deviceUrl, std::time(nullptr)) || isWithdrawalDue)
        FileStore::WakeWorker(Worker::Notify);
}

/// Tells a parent that this device can be called again, or a former one, with the GUID of the one that it has
/// now, that it is no child of it any more.
void CallParent(const KelString& url, const KelString& otherParent) {
    KelContainer call;
    call.SetString(kValueDeviceGuid, OurDeviceUrl());
    if (!otherParent.empty()) call.SetString(kValueParentGuid, otherParent);
    ActionDbInvokeContainer(nullptr, url, kContactAction, call, 0, kConnectTimeout, kCallTimeout, nullptr);
}

void LookForParent() {
    KelContainer none;
    CallLocal("RelayCheckParent", none);
}

}  // namespace

namespace filestore {

void ReportParentError(unsigned int error) {
    if (error == kKelErrorUnreachable || error == kKelErrorCredentials) LookForParent();
}

void ReportTransferResult(unsigned int result) {
    if (result == kHttpUnreachable || result == kHttpCutOff) LookForParent();
}

void NoteSignOfLife(const KelString& deviceUrl) {
    if (IsDeviceUrl(deviceUrl) && lastSigns.Note(deviceUrl)) EndWaitingFor(deviceUrl);
}

void EndTargetsOf(const KelString& device) {
    const KelString guid = StringTokeniser(device, '/').GetToken(1);
    if (!IsUsableGuid(guid)) return;
    DeleteWithdrawalsOf(guid);  // if that fails, they are only tried in vain
    const KelVector<KelString> names = DeleteTargetsOfDevice(guid);
    for (const KelString& name : names) {
        Reasons().DeviceAnswered(name);
        FileStore::debugFileStore.Print("%S has another parent: what waited for it here ends\n", name);
    }
}

bool HasEndedWaitingSince(const KelString& deviceName, std::chrono::steady_clock::time_point time) {
    const StringTokeniser parts(deviceName, '/');
    return lastSigns.HasEndedWaitingSince(parts.GetToken(0) + "/" + parts.GetToken(1), time);
}

}  // namespace filestore

/// The relay module reports that the device has another parent. Its event for a parent that answers follows.
unsigned int FileStore::ActionHandler_FileStoreParentChange(KelContainer* /*arguments*/) {
    ParentWatch::NoteChange();
    TurnToNewParent();
    return kKelOk;
}

/// The relay module reports that the parent answers again.
unsigned int FileStore::ActionHandler_FileStoreParentInSync(KelContainer* arguments) {
    const KelString former = arguments->GetString("FormerParent");
    MakeDueForParent();
    WakeWorker(Worker::Pull);
    WakeWorker(Worker::Push);
    WakeWorker(Worker::Delete);  // it notes which databases the parent has
    KelString parentUrl, parentGuid;
    GetRelayUrl(parentUrl, parentGuid);
    if (parentUrl.empty() || OurDeviceUrl().empty()) return kKelOk;
    CallParent(parentUrl, {});
    if (!former.empty())
        CallParent(UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), former), parentGuid);
    return kKelOk;
}

/// A child reports that it can be called, or that it is no child any more. It does so when it finds its
/// parent, again or another one, not more often.
unsigned int FileStore::ActionHandler_FileStoreDeviceContact(KelContainer* arguments) {
    const KelString deviceUrl = arguments->GetString(kValueDeviceGuid);
    const KelString parentGuid = arguments->GetString(kValueParentGuid);
    const bool isCaller =
        IsDeviceUrl(deviceUrl) && CheckIsCallOf(*arguments, deviceUrl) &&
        IsCallOfOne(*arguments, NamesOfTargets(StringTokeniser(deviceUrl, '/').GetToken(1)));
    arguments->Clear();
    if (!isCaller) return kKelErrorBadInput;
    if (parentGuid.empty() || parentGuid == OurGuid())
        EndWaitingFor(deviceUrl);
    else
        EndTargetsOf(deviceUrl);
    return kKelOk;
}

#include "filestore/down/multicast_planner.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/down/announcement.h"
#include "filestore/down/announcement_calls.h"
#include "filestore/down/multicast_calls.h"
#include "filestore/down/multicast_thread.h"
#include "filestore/exchange/side_by_side.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/settings.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr std::size_t kMostAtOnce = 50;
constexpr std::size_t kMostRemembered = 10000;

/// The call that makes a device listen, without what only a download needs.
KelContainer MulticastAnnouncement(const FileTarget& row, const KelString& address) {
    FileOffer announcement = BuildAnnouncement(row);
    announcement.url = AnnouncedUrl(row.file);
    announcement.wakeOnLan.reset();
    announcement.bypass.reset();
    announcement.transportMode.reset();
    KelContainer values = announcement.ToContainer();
    values.SetString(kValueMulticastAddress, address);
    values.SetInt32(kValueMulticastPort, static_cast<std::int32_t>(FileStore::ulMulticastTransferPort));
    values.SetInt32(kValueMulticastBlockSize, static_cast<std::int32_t>(FileStore::ulMulticastBlockSize));
    return values;
}

WaitingReason Because(Waiting code, KelString detail = {}) {
    WaitingReason reason;
    reason.code = code;
    reason.detail = std::move(detail);
    return reason;
}

}  // namespace

/// Frees what belonged to files that were removed while they were planned.
static void ReclaimAddresses() {
    {
        const KelLock lock(FileStore::mutexMulticastVector);
        if (FileStore::vecMulticastAddressInUse.empty()) return;
        FileStore::vecMulticastAddressInUse.clear();
    }
    ForgetAllListeners();
}

/// A target that is asked to listen, and its answer.
struct MulticastPlanner::Invitation {
    FileTarget row;
    KelString url{};
    KelString localAddress{};
    unsigned int error = kKelErrorUnreachable;
};

bool MulticastPlanner::IsWindowOpen() {
    int frameSize = 0;
    FileStoreBandwidthManager& window = FileStore::bmTrackUsageMulticast;
    return window.BandwidthIsLimited() && window.GetRate(frameSize) != 0;
}

bool MulticastPlanner::IsLarge(const FileStoreEntry& file) {
    return file.FileSize >= std::int64_t{FileStore::ulMulticastMinimumFileSize};
}

bool MulticastPlanner::CheckMulticastPrerequisiteConditions(std::uint64_t fileId) {
    FileStoreEntry file;
    return file.LoadFromDatabase(fileId, Side::Downstream) &&
           file.MulticastRetryNumber < FileStore::ulMulticastRetry;
}

bool MulticastPlanner::CheckMulticastStartingConditions(std::size_t reached) {
    const bool isEnough = reached >= FileStore::ulMulticastMinimumRequests;
    FileStore::debugFileStore.Detail(
        "NotifyThread: Multicast conditions %schecked. Reached clients : %u / %u minimum requested\n",
        isEnough ? "" : "not ", static_cast<unsigned int>(reached),
        FileStore::ulMulticastMinimumRequests.load());
    return isEnough;
}

bool MulticastPlanner::CheckMulticastTransferDelay(std::uint64_t fileId) {
    const auto oldest = OldestTargetTime(fileId);
    return oldest && *oldest + std::int64_t{FileStore::ulMulticastTransferDelay} <= std::time(nullptr);
}

/// True for a file that was tried often enough, and still has fewer targets than a transfer needs.
bool MulticastPlanner::LacksTargets(const FileStoreEntry& file) const {
    const auto tried = fruitless_.find(file.FileId);
    return tried != fruitless_.end() && tried->second >= FileStore::ulMulticastRetry &&
           SelectMulticastTargets(file.FileId).size() < FileStore::ulMulticastMinimumRequests;
}

MulticastPlanner::Way MulticastPlanner::Choose(const FileTarget& candidate) {
    const FileStoreEntry& file = candidate.file;
    FileStore::debugFileStore.Trace("NotifyThread: (Multicast) FileID: %lu\n", file.FileId);
    FileStore::debugFileStore.Trace("NotifyThread: (Multicast) FileName: %S\n", file.FileName);
    FileStore::debugFileStore.Trace("NotifyThread: (Multicast) FileSize: %gd\n", file.FileSize);
    FileStore::debugFileStore.Trace("NotifyThread: (Multicast) TargetID: %lu\n", candidate.target.TargetId);
    if (file.FileStatus != kStatusAvailable) return Way::Unicast;  // a rule file is announced in its place
    if (!IsLarge(file)) {
        FileStore::debugFileStore.Trace("NotifyThread: File size to small for multicast transfer.\n");
        return Way::Unicast;
    }
    if (!CheckMulticastTransferDelay(file.FileId)) {
        FileStore::debugFileStore.Detail("Delay for transferring file %lu not reached.\n", file.FileId);
        return Postpone(file, Because(Waiting::GatheringTargets));
    }
    if (!CheckMulticastPrerequisiteConditions(file.FileId)) {
        FileStore::debugFileStore.Detail("Number of multicast retry reached for file : %lu\n", file.FileId);
        return GoByUnicast(file);
    }
    if (LacksTargets(file)) return GoByUnicast(file);
    if (Reserve(file)) return Way::Multicast;
    if (!address_.empty()) {
        Release();
        return Way::Failed;
    }
    FileStore::debugFileStore.Detail("No more multicast address available\n");
    return Postpone(file, Because(Waiting::AwaitingGroup));
}

MulticastPlanner::Way MulticastPlanner::GoByUnicast(const FileStoreEntry& file) {
    // It was selected for the sake of multicast, whose window is another one.
    if (FileStore::bmTrackUsageDown.TransfersAreDisabled() && !file.Bypass)
        return Postpone(file, Because(Waiting::WindowClosed));
    Reasons().MovedOn(Side::Downstream, file.FileId);
    return Way::Unicast;
}

MulticastPlanner::Way MulticastPlanner::Postpone(const FileStoreEntry& file, WaitingReason reason) {
    Reasons().Note(Side::Downstream, file.FileId, WaitingStep::Announce, std::move(reason));
    const std::int64_t time = FileStoreDueBefore(FileStore::ulTimeout) + kPostponed.count();
    return PostponeTargets(file.FileId, time) ? Way::Postponed : Way::Failed;
}

/// False with address_ empty when none is free, and with it set when it could not be recorded.
bool MulticastPlanner::Reserve(const FileStoreEntry& file) {
    FileStore::debugFileStore.Detail("Get a free Multicast address\n");
    const bool isInUse = IsMulticastInUse() || FileStore::threadMulticast.IsSending();
    if (!isInUse) ReclaimAddresses();
    IpRange range;
    {
        const KelLock lock(FileStore::mutexSettings);
        range = FileStore::MulticastIpRange;
    }
    {
        const KelLock lock(FileStore::mutexMulticastVector);
        address_ = FileStore::GetFreeMulticastAddress(range, FileStore::vecMulticastAddressInUse);
    }
    if (address_.empty()) return false;
    FileStore::debugFileStore.Detail("Multicast address for transfer : %S\n", address_);
    return SetMulticastRoute(file.FileId, address_, FileStore::ulMulticastTransferPort,
                             FileStore::ulMulticastBlockSize);
}

void MulticastPlanner::Release() {
    const KelLock lock(FileStore::mutexMulticastVector);
    FileStore::DropFreeMulticastAddress(address_, FileStore::vecMulticastAddressInUse);
    address_.clear();
}

MulticastPlanner::Way MulticastPlanner::Prepare(const FileStoreEntry& file) {
    MulticastPlan plan;
    plan.fileId = file.FileId;
    plan.address = address_;
    KelVector<Invitation> invitations = Invite(file, plan.outcome);
    if (invitations.empty() && plan.outcome.IsEmpty()) {
        FileStore::debugFileStore.Detail("No clients found for this file.\n");
        Release();
        return Way::Failed;
    }
    const std::size_t threads = std::min(invitations.size(), kMostAtOnce);
    FileStore::debugFileStore.Detail("NotifyThread: Starting multicast threads (%u) of notifications.\n",
                                     static_cast<unsigned int>(threads));
    RunSideBySide(invitations.size(), threads, [&](std::size_t i) { Call(invitations[i]); });
    FileStore::debugFileStore.Detail("NotifyThread: End of multicast notifications.\n");
    if (thread_.CheckCancelled(false)) {
        Release();
        return Way::Failed;
    }
    Collect(invitations, plan);
    return CheckMulticastStartingConditions(plan.listeners.size()) ? Record(file, plan) : GiveUp(file, plan);
}

/// The due targets; those that can never be called go to the outcome.
KelVector<MulticastPlanner::Invitation> MulticastPlanner::Invite(const FileStoreEntry& file,
                                                                 AnnouncementOutcome& outcome) const {
    KelVector<Invitation> invitations;
    for (FileStoreTarget& target : SelectMulticastTargets(file.FileId)) {
        FileStore::debugFileStore.Detail("NotifyThread: Prepare Multicast Notifying %S about %S/%S/%S\n",
                                         target.DeviceGUID, file.FileType, file.FileLabel, file.FileName);
        if (!IsValidDestination(target.DeviceGUID)) {
            FileStore::debugFileStore.Warning("NotifyThread: Will ignore invalid destination address\n");
            outcome.delivered.Add(target.TargetId);
            continue;
        }
        invitations.push_back({.row = {file, std::move(target)}});
    }
    return invitations;
}

void MulticastPlanner::Call(Invitation& invitation) const {
    if (thread_.CheckCancelled(false)) return;
    KelString guid;
    FileStore::GetDeviceUrl(invitation.row.target.DeviceGUID, invitation.url, guid);
    KelContainer values = MulticastAnnouncement(invitation.row, address_);
    IpAddress local;
    invitation.error = ActionDbInvokeContainer(nullptr, invitation.url, "FileStoreReceiveFile", values, 0,
                                               kConnectTimeout, kCallTimeout, &local);
    invitation.localAddress = local.ToText();
    NoteCall(invitation.row.target, invitation.error);
}

void MulticastPlanner::Collect(const KelVector<Invitation>& invitations, MulticastPlan& plan) const {
    for (const Invitation& invitation : invitations) {
        const FileStoreTarget& target = invitation.row.target;
        const KelString failure = "multicast notify " + target.DeviceGUID;
        if (invitation.error != kKelOk) {
            FileStore::failures.Failed(
                KelDebugLevel::Error, failure,
                KelFormat("NotifyThread: Failed to notify %S in multicast mode, error %u",
                          PeerName(target.DeviceGUID), invitation.error));
            plan.outcome.failed.Add(target.TargetId);
            continue;
        }
        FileStore::failures.Succeeded(failure, KelFormat("NotifyThread: %S takes multicast notifications",
                                                         PeerName(target.DeviceGUID)));
        plan.listeners.push_back({invitation.localAddress, invitation.url, target.TargetId});
        plan.outcome.announced.Add(target.TargetId);
    }
}

/// Too few listen: those that do stop.
MulticastPlanner::Way MulticastPlanner::GiveUp(const FileStoreEntry& file, const MulticastPlan& plan) {
    FileStore::debugFileStore.Detail("NotifyThread: Conditions for Multicast transfer not checked.\n");
    Release();
    RunSideBySide(plan.listeners.size(), kMostAtOnce,
                  [&plan](std::size_t i) { StopListening(plan.listeners[i].deviceUrl, plan.address); });
    if (fruitless_.size() >= kMostRemembered) fruitless_.clear();
    ++fruitless_[file.FileId];
    return Postpone(
        file, Because(Waiting::AwaitingRequests, KelFormat("%lu of %u", plan.listeners.size(),
                                                           FileStore::ulMulticastMinimumRequests.load())));
}

MulticastPlanner::Way MulticastPlanner::Record(const FileStoreEntry& file, const MulticastPlan& plan) {
    const std::int64_t now = std::time(nullptr);
    if (!RecordMulticastPlan(plan, {now, TimeOfAnnounced(now), now})) {
        Release();
        return Way::Failed;
    }
    address_.clear();  // it belongs to the transfer now
    fruitless_.erase(file.FileId);
    Reasons().MovedOn(Side::Downstream, file.FileId);
    return Way::Multicast;
}

}  // namespace filestore

KelString FileStore::GetFreeMulticastAddress(const IpRange& range, KelVector<KelString>& inUse) {
    if (!inUse.empty()) return {};
    IpAddress address;
    if (!range.GetNextAddress(address, true)) return {};
    inUse.push_back(address.ToText());
    return inUse.back();
}

void FileStore::DropFreeMulticastAddress(const KelString& address, KelVector<KelString>& inUse) {
    const auto used = std::find(inUse.begin(), inUse.end(), address);
    if (used != inUse.end()) inUse.erase(used);
}

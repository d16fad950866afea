#include "filestore/exchange/reason_of_file.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/format.h"

namespace filestore {

namespace {

enum class Needs : unsigned char { Nothing, Sender, Parent };

/// What is done next for a file in a status.
struct NextStep {
    const char* status;
    WaitingStep step;
    Needs needs;
    Waiting atFirst;  ///< before the first try
};

constexpr std::array kSteps = {
    NextStep{kStatusMissing, WaitingStep::Request, Needs::Nothing, Waiting::NotTried},
    NextStep{kStatusToBeRequested, WaitingStep::Request, Needs::Parent, Waiting::NotTried},
    NextStep{kStatusDownloading, WaitingStep::Download, Needs::Sender, Waiting::Announced},
    NextStep{kStatusMulticastListening, WaitingStep::Download, Needs::Nothing, Waiting::AwaitingContent},
    NextStep{kStatusReceiving, WaitingStep::Download, Needs::Nothing, Waiting::AwaitingContent},
    NextStep{kStatusToBeHandled, WaitingStep::Handle, Needs::Nothing, Waiting::NotTried},
    NextStep{kStatusToBeUploaded, WaitingStep::Send, Needs::Parent, Waiting::NotTried},
    NextStep{kStatusToBePacked, WaitingStep::Send, Needs::Parent, Waiting::ToBePacked},
    NextStep{kStatusUploading, WaitingStep::Upload, Needs::Parent, Waiting::NotTried},
};
constexpr NextStep kAcknowledging = {kStatusAvailable, WaitingStep::Acknowledge, Needs::Sender,
                                     Waiting::NotTried};

const NextStep* NextStepOf(const FileStoreEntry& file, Side side) {
    const auto* step = std::ranges::find_if(
        kSteps, [&file](const NextStep& known) { return file.FileStatus == known.status; });
    if (step != kSteps.end()) return step;
    const bool isToAcknowledge = side == Side::Downstream && file.FileStatus == kStatusAvailable &&
                                 !file.Upstream && !file.Acknowledged;
    return isToAcknowledge ? &kAcknowledging : nullptr;
}

std::int64_t TimeoutOf(WaitingStep step) {
    const bool isPulled = step == WaitingStep::Download || step == WaitingStep::Acknowledge;
    return isPulled ? FileStore::ulPullTimeout : FileStore::ulPushTimeout;
}

/// The steps postpone a row by setting the time of its status; 0 is due at once.
std::int64_t NextTryOf(std::int64_t last, std::int64_t timeout, std::int64_t now) {
    return last == 0 ? now : std::max(last + timeout, now);
}

WaitingReason WindowReason(const FileStoreBandwidthManager::ClosedSpan& closed, std::int64_t created) {
    WaitingReason reason;
    reason.code = Waiting::WindowClosed;
    reason.since = std::max(closed.since, created);
    reason.nextTry = closed.until;
    return reason;
}

WaitingReason ParentReason(const Circumstances& at) {
    WaitingReason reason;
    reason.code = Waiting::ParentUnknown;
    reason.since = at.parent.since;
    reason.nextTry = std::max(at.parent.nextCheck, at.now);
    if (at.parent.name.empty()) {
        reason.detail = "this device has no parent; set ParentName in Relay.ini";
    } else {
        reason.peer = KelFormat("%S:%u", at.parent.name, at.parent.port);
        reason.detail = at.parent.problem.empty() ? KelString("it has not answered yet") : at.parent.problem;
    }
    return reason;
}

/// Nothing while no transfer is in progress, and while one after a failed try has not brought anything.
std::optional<WaitingReason> TransferReason(const FileStoreEntry& file, Side side, bool hasFailed) {
    const auto transfer = Reasons().FindTransfer(side, file.FileId);
    if (!transfer) return std::nullopt;
    WaitingReason reason;
    reason.code = Waiting::Transferring;
    reason.since = transfer->since;
    reason.whole = static_cast<std::uint64_t>(std::max<std::int64_t>(file.FileSize, 0));
    if (side == Side::Downstream)
        reason.bytes =
            static_cast<std::uint64_t>(std::max<std::int64_t>(FileGetSize64(ContentPath(file, side)), 0));
    else if (transfer->sent)
        reason.bytes = *transfer->sent;
    if (hasFailed && reason.bytes <= transfer->bytes) return std::nullopt;
    return reason;
}

WaitingReason UnnotedReason(const FileStoreEntry& file, const NextStep& next) {
    WaitingReason reason;
    reason.code = file.LastStatusChangeTime == 0 ? next.atFirst : Waiting::LastTryFailed;
    if (next.atFirst == Waiting::AwaitingContent || next.atFirst == Waiting::ToBePacked)
        reason.code = next.atFirst;
    reason.since = file.LastStatusChangeTime == 0 ? file.CreateTime : file.LastStatusChangeTime;
    return reason;
}

}  // namespace

Circumstances Circumstances::Now() {
    Circumstances at;
    at.now = std::time(nullptr);
    ReadParent(at.parent);
    at.toParent = FileStore::bmTrackUsageUp.GetClosedSpan(at.now);
    at.toChildren = FileStore::bmTrackUsageDown.GetClosedSpan(at.now);
    at.isMulticastOpen = FileStore::bmTrackUsageMulticast.BandwidthIsLimited() &&
                         !FileStore::bmTrackUsageMulticast.TransfersAreDisabled();
    return at;
}

std::optional<WaitingReason> ReasonOfFile(const FileStoreEntry& file, Side side, const Circumstances& at) {
    const NextStep* next = NextStepOf(file, side);
    if (next == nullptr) return std::nullopt;
    const auto noted = Reasons().Find(side, file.FileId, next->step, file.CreateTime);
    if (auto transfer = TransferReason(file, side, noted.has_value())) return transfer;
    if (next->needs != Needs::Nothing && at.toParent && !file.Bypass)
        return WindowReason(*at.toParent, file.CreateTime);
    const bool needsParent =
        next->needs == Needs::Parent || (next->needs == Needs::Sender && file.SourceDevice.empty());
    if (needsParent && !at.parent.IsKnown()) return ParentReason(at);
    WaitingReason reason = noted ? *noted : UnnotedReason(file, *next);
    if (next->needs != Needs::Nothing)
        reason.nextTry = NextTryOf(file.LastStatusChangeTime, TimeoutOf(next->step), at.now);
    return reason;
}

/// Distributes the files of one status over the reasons.
class StatusReasons {
  public:
    StatusReasons(WaitingCount status, KelVector<WaitingCount>& result)
        : status_(std::move(status)), left_(status_.files), result_(result) {}

    void Add(Waiting code, std::int64_t files) {
        files = std::min(files, left_);
        if (files <= 0) return;
        left_ -= files;
        result_.push_back({status_.status, code, files, status_.since});
    }
    void AddRest(Waiting code) { Add(code, left_); }

  private:
    const WaitingCount status_;
    std::int64_t left_;
    KelVector<WaitingCount>& result_;
};

static void CountStatus(const NextStep& next, Side side, const WaitingReasons::Counts& noted,
                        const Circumstances& at, StatusReasons reasons) {
    const std::string_view status = next.status;
    const bool isTransferred = status == kStatusDownloading || status == kStatusUploading;
    if (isTransferred) reasons.Add(Waiting::Transferring, Reasons().CountTransfers(side));
    if (next.needs != Needs::Nothing && at.toParent) return reasons.AddRest(Waiting::WindowClosed);
    if (next.needs == Needs::Parent && !at.parent.IsKnown()) return reasons.AddRest(Waiting::ParentUnknown);
    // No step notes anything for the others.
    const bool isTried = next.atFirst == Waiting::NotTried || next.atFirst == Waiting::Announced;
    for (const auto& [key, files] : noted)
        if (isTried && status != kStatusMissing && key.first == next.step) reasons.Add(key.second, files);
    reasons.AddRest(next.atFirst);
}

KelVector<WaitingCount> CountWaiting(Side side, const KelVector<StatusCount>& counts,
                                     const Circumstances& at) {
    KelVector<WaitingCount> result;
    const WaitingReasons::Counts noted = Reasons().CountFiles(side);
    for (const StatusCount& counted : counts) {
        const auto* next = std::ranges::find_if(
            kSteps, [&counted](const NextStep& known) { return counted.status == known.status; });
        if (next != kSteps.end())
            CountStatus(*next, side, noted, at,
                        {{.status = counted.status,
                          .files = counted.count,
                          .since = FirstTimeInStatus(side, counted.status)},
                         result});
        else if (side == Side::Downstream && counted.status == kStatusAvailable)
            CountStatus(kAcknowledging, side, noted, at,
                        {{.status = counted.status,
                          .files = counted.unacknowledged,
                          .since = FirstTimeUnacknowledged()},
                         result});
    }
    return result;
}

/// What keeps the file of a target from being sent to a group, while files are sent to groups.
static std::optional<WaitingReason> MulticastReason(const FileStoreEntry& file, const FileStoreTarget& target,
                                                    const Circumstances& at) {
    if (!at.isMulticastOpen || target.DeviceGUID.empty()) return std::nullopt;
    if (file.MulticastTransferToBeStarted != 0) return WaitingReason{.code = Waiting::MulticastUnderWay};
    return Reasons().Find(Side::Downstream, file.FileId, WaitingStep::Announce, file.CreateTime);
}

WaitingReason ReasonOfTarget(const FileStoreEntry& file, const FileStoreTarget& target,
                             const Circumstances& at) {
    const std::int64_t timeout = FileStore::ulTimeout;
    WaitingReason reason;
    reason.peer = PeerName(target.DeviceGUID);
    if (target.LastNotifyTime > at.now) {
        constexpr std::int64_t kTimeouts = 4;  // the announcement is repeated after five
        reason.code = Waiting::AwaitingAcknowledgement;
        reason.since = std::max(target.LastNotifyTime - kTimeouts * timeout, target.TargetCreateTime);
        reason.nextTry = target.LastNotifyTime + timeout;
        return reason;
    }
    if (auto multicast = MulticastReason(file, target, at)) {
        multicast->since = std::max(multicast->since, target.TargetCreateTime);
        multicast->nextTry = NextTryOf(target.LastNotifyTime, timeout, at.now);
        return *multicast;
    }
    if (at.toChildren && !file.Bypass && !target.DeviceGUID.empty())
        return WindowReason(*at.toChildren, target.TargetCreateTime);
    if (const auto noted = Reasons().FindDevice(target.DeviceGUID); noted && !target.DeviceGUID.empty()) {
        reason = *noted;
        reason.since = std::max(reason.since, target.TargetCreateTime);
    } else {
        reason.code = target.LastNotifyTime == 0 ? Waiting::NotTried : Waiting::LastTryFailed;
        reason.since = target.LastNotifyTime == 0 ? target.TargetCreateTime : target.LastNotifyTime;
    }
    reason.nextTry = NextTryOf(target.LastNotifyTime, timeout, at.now);
    return reason;
}

}  // namespace filestore

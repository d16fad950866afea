#include "filestore/down/announcement_calls.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "filestore/down/announcement.h"
#include "filestore/down/withdraw.h"
#include "filestore/state/contact.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/waiting_reasons.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr std::size_t kMostAtOnce = 50;
/// A call that takes longer no longer counts among those: it most probably ends with its time-out.
constexpr std::chrono::seconds kSlow{3};
/// The slow ones included.
constexpr std::size_t kMostInAll = 250;
/// Of devices that did not answer last time.
constexpr std::size_t kMostSuspects = 10;

}  // namespace

unsigned int AnnounceTo(const FileTarget& row) {
    KelString url, guid;
    FileStore::GetDeviceUrl(row.target.DeviceGUID, url, guid);
    FileOffer announcement = BuildAnnouncement(row);
    announcement.url = AnnouncedUrl(row.file);
    KelContainer values = announcement.ToContainer();
    const unsigned int error = ActionDbInvokeContainer(nullptr, url, "FileStoreReceiveFile", values, 0,
                                                       kConnectTimeout, kCallTimeout, nullptr);
    if (error != kKelOk || !values.Has(kValueParentGuid)) return error;
    // It was dropped: the device has another parent, or looks for its parent, or knows this one only under
    // another address.
    const KelString parentGuid = values.GetString(kValueParentGuid);
    if (parentGuid.empty() || parentGuid == OurGuid()) return kNotItsParent;
    EndTargetsOf(row.target.DeviceGUID);
    return kKelOk;
}

void NoteCall(const FileStoreTarget& target, unsigned int error) {
    if (error == kKelOk) {
        NoteAnswerOf(target.DeviceGUID);
        return Reasons().DeviceAnswered(target.DeviceGUID);
    }
    WaitingReason reason = ReasonOfCall(error, PeerName(target.DeviceGUID));
    if (error == kNotItsParent)
        reason.detail = "it does not take this device for its parent; 'kel status' there shows which it has";
    if (WakeUpTarget(target, error)) reason.code = Waiting::WakeUpSent;
    Reasons().NoteDevice(target.DeviceGUID, std::move(reason));
}

/// On a thread of its own, which no exception may leave.
template <class Call>
static unsigned int Try(const Call& call, const FileKey& key, const KelString& device) {
    try {
        return call();
    } catch (const std::exception& exception) {
        FileStore::debugFileStore.Error("NotifyThread: Calling %S about %S failed: %s\n", device, key.Text(),
                                        exception.what());
        return kKelErrorInternal;
    }
}

AnnouncementCalls::Begun AnnouncementCalls::Begin(KelVector<FileTarget> rows) {
    const KelString device = rows.front().target.DeviceGUID;
    const auto inUse = std::make_shared<KelVector<FileInUse>>();
    for (const FileTarget& row : rows)
        inUse->emplace_back(Side::Downstream, row.file);
    return Start(device, [rows = std::move(rows), inUse](AnnouncementOutcome& outcome) {
        Ended ended{kKelOk, rows.front().target};
        bool isFirst = true;
        for (const FileTarget& row : rows) {
            if (ended.error == kKelOk)
                ended.error = Try([&row] { return AnnounceTo(row); }, row.file.Key(), row.target.DeviceGUID);
            (ended.error == kKelOk ? outcome.announced : outcome.failed).Add(row.target.TargetId);
            if (ended.error != kKelOk && row.target.WakeUpDevice == 1 && std::exchange(isFirst, false))
                ended.target = row.target;
        }
        return ended;
    });
}

AnnouncementCalls::Begun AnnouncementCalls::Begin(KelVector<FileWithdrawal> rows) {
    const KelString device = rows.front().deviceGuid;
    return Start(device, [rows = std::move(rows)](AnnouncementOutcome& outcome) {
        Ended ended;
        ended.target.DeviceGUID = rows.front().deviceGuid;
        for (const FileWithdrawal& row : rows) {
            const unsigned int error = Try([&row] { return WithdrawFrom(row); }, row.key, row.deviceGuid);
            ended.error = IsFinalRefusal(error) ? static_cast<unsigned int>(kKelOk) : error;
            if (ended.error != kKelOk) break;
            if (error != kKelOk)
                FileStore::debugFileStore.Warning("NotifyThread: %S refuses the withdrawal of %S: %S\n",
                                                  row.deviceGuid, row.key.Text(), KelErrorText(error));
            outcome.withdrawn.Add(row.withdrawalId);
        }
        return ended;
    });
}

AnnouncementCalls::Begun AnnouncementCalls::Start(const KelString& device, Work work) {
    const bool isSuspect = silent_.contains(device);
    if (IsFull()) return Begun::NoRoom;
    const KelLock lock(mutex_);
    const auto isOfSuspect = [](const Call& call) { return call.isSuspect && !call.hasEnded; };
    if (isSuspect && std::ranges::count_if(calls_, isOfSuspect) >= std::ptrdiff_t{kMostSuspects})
        return Begun::NoRoom;
    Call& call = calls_.emplace_back();
    call.device = device;
    call.begin = std::chrono::steady_clock::now();
    call.isSuspect = isSuspect;
    try {
        call.thread = std::thread([this, &call, work = std::move(work)] { Run(call, work); });
    } catch (const std::system_error&) {  // no more threads now: the rows stay due
        calls_.pop_back();
        return Begun::NoRoom;
    }
    return Begun::Yes;
}

void AnnouncementCalls::Run(Call& call, const Work& work) {
    AnnouncementOutcome outcome;
    const auto [error, target] = work(outcome);
    NoteCall(target, error);
    if (error != kKelOk) outcome.failedDevices.push_back(call.device);
    bool isCollected = false;
    {
        const KelLock lock(mutex_);
        call.outcome = std::move(outcome);
        call.isSilent = error == kKelErrorUnreachable;
        call.hasEnded = true;
        isCollected = isWaiting_;
        ended_.notify_all();
    }
    if (!isCollected) FileStore::WakeWorker(Worker::Notify);
}

bool AnnouncementCalls::HaveAllEnded() const {
    return std::ranges::all_of(calls_, [](const Call& call) { return call.hasEnded; });
}

bool AnnouncementCalls::HavePromptOnesEnded() const {
    const auto slowBefore = std::chrono::steady_clock::now() - kSlow;
    return std::ranges::none_of(calls_, [slowBefore](const Call& call) {
        return !call.hasEnded && !call.isSuspect && call.begin > slowBefore;
    });
}

bool AnnouncementCalls::IsFull() const {
    const auto slowBefore = std::chrono::steady_clock::now() - kSlow;
    const KelLock lock(mutex_);
    const auto isPrompt = [slowBefore](const Call& call) {
        return !call.hasEnded && call.begin > slowBefore;
    };
    return calls_.size() >= kMostInAll ||
           std::ranges::count_if(calls_, isPrompt) >= std::ptrdiff_t{kMostAtOnce};
}

KelVector<KelString> AnnouncementCalls::BusyDevices() const {
    KelVector<KelString> devices;
    const KelLock lock(mutex_);
    for (const Call& call : calls_)
        devices.push_back(call.device);
    return devices;
}

void AnnouncementCalls::Wait(std::chrono::milliseconds patience, For what) {
    const auto end = std::chrono::steady_clock::now() + patience;
    KelLock lock(mutex_);
    isWaiting_ = true;
    while (!(what == For::All ? HaveAllEnded() : HavePromptOnesEnded()) &&
           ended_.wait_until(mutex_, end) == std::cv_status::no_timeout) {
    }
    isWaiting_ = false;
}

AnnouncementOutcome AnnouncementCalls::Collect() {
    std::list<Call> ended;
    {
        const KelLock lock(mutex_);
        for (auto call = calls_.begin(); call != calls_.end();) {
            const auto next = std::next(call);
            if (call->hasEnded) ended.splice(ended.end(), calls_, call);
            call = next;
        }
    }
    AnnouncementOutcome all;
    for (Call& call : ended) {
        call.thread.join();
        if (call.isSilent &&
            HasEndedWaitingSince(call.device, call.begin)) {  // it is up by now: all stays due
            call.isSilent = false;
            call.outcome.failed = {};
            call.outcome.failedDevices.clear();
        }
        if (call.isSilent)
            silent_.insert(call.device);
        else
            silent_.erase(call.device);
        all.Append(call.outcome);
    }
    return all;
}

void AnnouncementCalls::Finish() {
    KelLock lock(mutex_);
    while (!HaveAllEnded())
        ended_.wait(mutex_);
    for (Call& call : calls_)
        call.thread.join();
    calls_.clear();
}

}  // namespace filestore

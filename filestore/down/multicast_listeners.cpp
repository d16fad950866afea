#include "filestore/down/multicast_listeners.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/down/announcement_calls.h"
#include "filestore/exchange/side_by_side.h"
#include "filestore/state/file_store.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

constexpr std::size_t kMostAtOnce = 50;

unsigned int Unsigned(std::size_t number) {
    return static_cast<unsigned int>(number);
}

}  // namespace

MulticastListeners::MulticastListeners(const FileStoreEntry& file, std::function<bool()> isCancelled)
    : file_(file), isCancelled_(std::move(isCancelled)), missing_(file) {}

bool MulticastListeners::ReadListeners() {
    auto listeners = SelectListeners(file_.MulticastAddress);
    if (!listeners) return false;
    listeners_ = std::move(*listeners);
    if (!std::exchange(isRead_, true)) total_ = listeners_.size();
    return !listeners_.empty();
}

bool MulticastListeners::IsOver() {
    if (total_ == 0) return true;
    const KelLock lock(mutex_);
    const std::size_t minimum = FileStore::ulMulticastMinimumSuccessRate;
    if (completed_ * 100 / total_ >= minimum && isExamined_) isSuccess_ = true;
    return isExamined_ && (completed_ + failed_.size()) * 100 / total_ >= minimum;
}

std::set<KelString> MulticastListeners::LocalAddresses() const {
    std::set<KelString> addresses;
    for (const MulticastListener& listener : listeners_)
        addresses.insert(listener.localAddress);
    return addresses;
}

void MulticastListeners::Examine(std::uint32_t retry) {
    isDifferential_ = FileStore::fMulticastDifferencialRetry;
    FileStore::debugFileStore.Detail("MulticastThread: Option Multicast Differencial Retry set to %d\n",
                                     isDifferential_ ? 1 : 0);
    {
        const KelLock lock(mutex_);
        missing_ = MissingBlocks(file_);
        mustSendAll_ = !isDifferential_;
    }
    isExamined_ = true;
    RunSideBySide(listeners_.size(), kMostAtOnce, [&](std::size_t i) {
        if (isCancelled_()) return;
        const MulticastListener& listener = listeners_[i];
        Judge(listener, AskForReception(listener.deviceUrl, file_, isDifferential_), retry);
    });
    const KelLock lock(mutex_);
    if (isDifferential_)
        FileStore::debugFileStore.Detail("MulticastThread: Buffers to be resent : %u\n",
                                         Unsigned(mustSendAll_ ? missing_.Total() : missing_.Count()));
}

void MulticastListeners::Judge(const MulticastListener& listener, Reception reception, std::uint32_t retry) {
    using State = Reception::State;
    if (reception.state == State::Completed) {
        SetStatus(listener, kListenerSucceeded);
        StopListening(listener.deviceUrl, file_.MulticastAddress);
    } else {
        SetStatus(listener, KelFormat("%s %d", kListenerRetry, static_cast<int>(retry)));
    }
    const bool isRestarted =
        reception.state == State::Spoilt && retry != 0 && ListenAgain(listener.deviceUrl, file_);
    if (reception.state == State::Spoilt && retry != 0 && !isRestarted) reception.state = State::Failed;
    const KelLock lock(mutex_);
    // One that was silent before may have come back.
    failed_.erase(listener.targetId);
    if (reception.state == State::Completed) ++completed_;
    if (reception.state == State::Failed) failed_.insert(listener.targetId);
    if (isRestarted) mustSendAll_ = true;
    if (reception.state == State::Incomplete) missing_.Add(reception.missing);
}

void MulticastListeners::SetStatus(const MulticastListener& listener, const KelString& status) {
    SetListenerStatus(file_.MulticastAddress, listener.targetId, status);
}

MulticastListeners::Need MulticastListeners::NextNeed() const {
    const KelLock lock(mutex_);
    const std::size_t count = missing_.Count();
    if (mustSendAll_ || (count != 0 && count == missing_.Total())) return Need::Everything;
    return count == 0 ? Need::Nothing : Need::Blocks;
}

std::set<std::uint32_t> MulticastListeners::NextBlocks() const {
    const KelLock lock(mutex_);
    const KelVector<std::uint32_t> numbers = missing_.Numbers();
    return {numbers.begin(), numbers.end()};
}

void MulticastListeners::Finish() {
    std::size_t failed = 0, completed = 0;
    {
        const KelLock lock(mutex_);
        failed = failed_.size();
        completed = completed_;
    }
    FileStore::debugFileStore.Print(
        "MulticastThread: %u/%u devices failed to receive any frame by multicast\n", Unsigned(failed),
        Unsigned(total_));
    FileStore::debugFileStore.Print("MulticastThread: %u/%u devices successfully distributed by multicast\n",
                                    Unsigned(completed), Unsigned(total_));
    if (!ReadListeners()) return;
    RunSideBySide(listeners_.size(), kMostAtOnce, [&](std::size_t i) {
        if (!isCancelled_()) Dismiss(listeners_[i]);
    });
}

void MulticastListeners::Dismiss(const MulticastListener& listener) {
    StopListening(listener.deviceUrl, file_.MulticastAddress);
    KelVector<FileTarget> rows = SelectTarget(file_.FileId, listener.targetId);
    if (rows.empty()) {
        FileStore::debugFileStore.Detail(
            "MulticastThread: %S has acknowledged the file, or it was withdrawn.\n",
            PeerName(listener.deviceUrl));
        return;
    }
    FileStore::debugFileStore.Warning("MulticastThread: Device %S failed to receive in multicast mode.\n",
                                      PeerName(listener.deviceUrl));
    if (FileStore::fUnicastRecoveryOnMulticastFailure && !isSuccess_) {
        FileStore::debugFileStore.Detail("MulticastThread: Starting unicast recovery.\n");
        StartUnicastRecovery(listener, rows.front());
        FileStore::debugFileStore.Detail("MulticastThread: Unicast recovery finished.\n");
        return;
    }
    ResetReception(listener.deviceUrl, file_.FileURL);
    FileStore::debugFileStore.Detail(
        "MulticastThread: %s\n",
        isSuccess_ ? "Success rate reached. No unicast recovery." : "Unicast recovery not activated.");
}

/// Announces the file to the device alone.
void MulticastListeners::StartUnicastRecovery(const MulticastListener& listener, FileTarget& row) {
    SetStatus(listener, kListenerFailed);
    // From which the device sees that what it has received by multicast has gaps.
    row.file.TransportMode = kTransportMulticast;
    const unsigned int error = AnnounceTo(row);
    NoteCall(row.target, error);
    const std::int64_t now = std::time(nullptr);
    SetNotifyTime(row.target.TargetId,
                  error == kKelOk ? now + 4 * std::int64_t{FileStore::ulPullTimeout} : now);
}

}  // namespace filestore

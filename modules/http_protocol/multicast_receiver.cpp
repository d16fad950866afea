#include "modules/http_protocol/multicast_receiver.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <thread>

#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/security.h"

namespace kelhttp {
namespace {

using State = MulticastReception::State;

constexpr std::size_t kVerifiers = 2;
constexpr std::uint64_t kMaxBlocks = std::uint64_t{1} << 26;  ///< 8 MiB of block map
constexpr std::chrono::seconds kStopPatience(30);
constexpr std::chrono::seconds kCheckEvery(1);
/// Datagrams are collected for so long before they are read: waking up for each burst of the sender would
/// cost more than reading it. At 1 Gbit/s this is 250 KB.
constexpr std::chrono::milliseconds kCollect(2);
constexpr std::uint64_t kWakeUp = 0;  ///< the number of the eventfd

MulticastReceiver::Group GroupOf(const MulticastReception& reception) {
    const MulticastTransfer& transfer = reception.Order().transfer;
    return {transfer.group, transfer.port};
}

bool IsUnderWay(State state) {
    return state == State::Listening || state == State::Verifying;
}

KelString RangeText(BlockMap::Range range) {
    KelString text = std::to_string(range.first);
    return range.first == range.last ? text : text + "-" + std::to_string(range.last);
}

}  // namespace

class MulticastReceiver::Thread final : public KelThread {
  public:
    explicit Thread(MulticastReceiver& owner) : owner_(owner) {}

  protected:
    void ThreadMain() override { owner_.Receive(); }

  private:
    MulticastReceiver& owner_;
};

MulticastReceiver::MulticastReceiver(MulticastSettings settings, const AliasTable& aliases,
                                     const KelDebug& log)
    : settings_(std::move(settings)),
      aliases_(aliases),
      log_(log),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      // A reception has at most one task here, and each may be followed by one call.
      completions_(kVerifiers, 2 * static_cast<std::size_t>(settings_.maxGroups) + 16),
      thread_(std::make_unique<Thread>(*this)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeUp;
    ::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, wakeUp_.Get(), &event);
}

MulticastReceiver::~MulticastReceiver() {
    Stop();
}

void MulticastReceiver::Stop() {
    if (stopping_.exchange(true)) return;
    WakeThread();
    thread_->Join();
    for (const Reception& reception : Remove([](const MulticastReception&) { return true; })) {
        if (IsUnderWay(reception->GetState())) reception->LogEnd("stopped");
        reception->Abandon();
    }
    completions_.Stop(kStopPatience);
}

unsigned int MulticastReceiver::Start(const MulticastOrder& order, KelString& message) {
    const std::lock_guard lock(startMutex_);
    if (stopping_) {
        message = "the agent is stopping";
        return kKelErrorNotAvailable;
    }
    if (order.blockSize == 0 || order.BlockCount() > kMaxBlocks) {
        message = "the file has too many blocks";
        return kKelErrorBadInput;
    }
    if (const Reception known = Find({order.transfer.group, order.transfer.port})) {
        const State state = known->GetState();
        if (known->Order() == order && IsUnderWay(state)) return kKelOk;
        if (known->Order() == order && state == State::Mismatched) return StartAgain(known, message);
        Remove([&known](const MulticastReception& reception) { return &reception == known.get(); });
        known->Abandon();
        if (IsUnderWay(state) && known->Order().localPath != order.localPath)
            GiveUp(known, "replaced by another file");
    }
    return Add(order, message);
}

unsigned int MulticastReceiver::Restart(const Group& group, std::uint32_t blockSize, std::uint64_t fileSize,
                                        KelString& message) {
    const std::lock_guard lock(startMutex_);
    const Reception known = Find(group);
    if (!known || known->Order().blockSize != blockSize || known->Order().transfer.fileSize != fileSize) {
        message = "no such file is awaited from that group";
        return kKelErrorBadInput;
    }
    return known->GetState() == State::Mismatched ? StartAgain(known, message) : unsigned{kKelOk};
}

unsigned int MulticastReceiver::Add(const MulticastOrder& order, KelString& message) {
    const std::optional<AliasMatch> place = aliases_.FindFolderOf(order.localPath);
    if (!place) {
        message = "the path is not beneath a folder that this device serves";
        return kKelErrorBadInput;
    }
    {
        const std::lock_guard lock(mutex_);
        if (receptions_.size() >= static_cast<std::size_t>(settings_.maxGroups)) {
            message = "too many files are being received; see MulticastMaxGroups";
            return kKelErrorNotAvailable;
        }
    }
    const auto reception =
        std::make_shared<MulticastReception>(order, *place, AgentSecurityGroupKeys(), log_);
    const IpAddress local = IpAddress::Parse(settings_.address).value_or(IpAddress());
    if (const KelStatus opened = reception->Open(local); !opened) {
        message = opened.Error().message;
        return kKelErrorNotAvailable;
    }
    return Register(reception, message);
}

unsigned int MulticastReceiver::Register(const Reception& reception, KelString& message) {
    std::uint64_t id = 0;
    {
        const std::lock_guard lock(mutex_);
        id = ++lastId_;
        receptions_.emplace(id, reception);
    }
    if (reception->GetState() == State::Verifying) {  // an empty file
        Complete(reception);
    } else if (!Watch(id, reception)) {
        message = "the socket cannot be watched";
        Remove([&reception](const MulticastReception& each) { return &each == reception.get(); });
        return kKelErrorNotAvailable;
    }
    return kKelOk;
}

unsigned int MulticastReceiver::StartAgain(const Reception& reception, KelString& message) {
    if (const KelStatus started = reception->Restart(); !started) {
        message = started.Error().message;
        return kKelErrorNotAvailable;
    }
    Remove([&reception](const MulticastReception& each) { return &each == reception.get(); });
    return Register(reception, message);
}

/// Has the thread read the socket, and starts the thread for the first one.
bool MulticastReceiver::Watch(std::uint64_t id, const Reception& reception) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, reception->Socket(), &event) != 0) return false;
    if (!stopping_) thread_->Start();
    WakeThread();
    return true;
}

void MulticastReceiver::WakeThread() {
    const std::uint64_t one = 1;
    // It fails only when the thread has not yet looked around since very many calls.
    [[maybe_unused]] const ssize_t written = ::write(wakeUp_.Get(), &one, sizeof one);
}

void MulticastReceiver::Receive() {
    std::array<epoll_event, 16> events;
    Clock::time_point nextCheck = Clock::now() + kCheckEvery;
    while (!stopping_) {
        bool isIdle = false;
        {
            const std::lock_guard lock(mutex_);
            isIdle = receptions_.empty();
        }
        const int timeout = isIdle ? -1 : 1000;
        const int count = ::epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), timeout);
        for (int i = 0; i < count && !stopping_; ++i) {
            if (events[static_cast<std::size_t>(i)].data.u64 == kWakeUp) {
                std::uint64_t value = 0;
                [[maybe_unused]] const ssize_t got = ::read(wakeUp_.Get(), &value, sizeof value);
            } else {
                ReceiveFrom(events[static_cast<std::size_t>(i)].data.u64);
            }
        }
        if (const Clock::time_point now = Clock::now(); now >= nextCheck) {
            EndSilent(now);
            nextCheck = now + kCheckEvery;
        }
        if (count > 0 && !reader_.IsFull()) std::this_thread::sleep_for(kCollect);
    }
}

void MulticastReceiver::ReceiveFrom(std::uint64_t id) {
    Reception reception;
    {
        const std::lock_guard lock(mutex_);
        const auto found = receptions_.find(id);
        if (found == receptions_.end()) return;
        reception = found->second;
    }
    const auto datagrams = reader_.Read(reception->Socket());
    const bool isComplete = reception->Take(datagrams, reader_.KernelDrops(), reader_.IsFull());
    if (isComplete || reception->GetState() == State::Failed) {
        ::epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, reception->Socket(), nullptr);
        reception->Leave();
        Complete(reception);
    }
}

/// Lets another thread do what remains to be done for a reception that needs no more datagrams.
void MulticastReceiver::Complete(const Reception& reception) {
    if (!completions_.TryPost([this, reception] { Finish(reception); })) reception->Abandon();
}

void MulticastReceiver::Finish(const Reception& reception) {
    try {
        if (reception->GetState() == State::Verifying) reception->Finish([this] { return stopping_.load(); });
    } catch (const std::exception& failure) {
        log_.Error("The reception of %S failed: %s\n", reception->Order().localPath, failure.what());
        reception->Abandon();
    }
    if (reception->GetState() != State::Failed || stopping_) return;
    // It is not in the table when it was ended meanwhile: then the file comes in another way.
    const auto removed =
        Remove([&reception](const MulticastReception& each) { return &each == reception.get(); });
    if (!removed.empty()) GiveUp(reception, "failed");
}

/// The file will not come by multicast: the file store is to fetch it.
void MulticastReceiver::GiveUp(const Reception& reception, const char* reason) {
    reception->LogEnd(reason);
    completions_.TryPost([url = reception->Order().transfer.urlPath] {
        KelContainer arguments;
        arguments.SetString(kValueFileUrl, url);
        CallLocal("FileStoreResetMulticastStatus", arguments);
    });
}

void MulticastReceiver::EndSilent(Clock::time_point now) {
    const auto isSilent = [this, now](const MulticastReception& reception) {
        return reception.GetState() != State::Verifying &&
               reception.LastHeard() + std::chrono::seconds(settings_.timeout) < now;
    };
    for (const Reception& reception : Remove(isSilent))
        if (reception->GetState() != State::Completed) GiveUp(reception, "no datagram for too long");
}

void MulticastReceiver::End(const KelString& groupAddress) {
    const auto ended = Remove([&groupAddress](const MulticastReception& reception) {
        return reception.Order().transfer.group == groupAddress;
    });
    for (const Reception& reception : ended) {
        if (reception->GetState() != State::Completed) reception->LogEnd("ended");
        reception->Abandon();
    }
}

MulticastReceiver::Reception MulticastReceiver::Find(const Group& group) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, reception] : receptions_)
        if (GroupOf(*reception) == group) return reception;
    return nullptr;
}

/// Takes receptions out of the table. What still uses one keeps it for so long.
MulticastReceiver::Receptions MulticastReceiver::Remove(
    const std::function<bool(const MulticastReception&)>& chosen) {
    Receptions removed;
    const std::lock_guard lock(mutex_);
    for (auto next = receptions_.begin(); next != receptions_.end();) {
        if (!chosen(*next->second)) {
            ++next;
            continue;
        }
        ::epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, next->second->Socket(), nullptr);
        removed.push_back(std::move(next->second));
        next = receptions_.erase(next);
    }
    return removed;
}

void MulticastReceiver::Report(const Group& group, bool differential, std::chrono::milliseconds patience,
                               KelContainer& answer) {
    const Reception reception = Find(group);
    MulticastReception::Report report;
    report.state = State::Failed;
    if (reception) report = reception->GetReport(kMaxRanges, Clock::now() + patience);
    const bool isUnheard = report.state == State::Listening && !report.hasHeard;
    answer.SetBool("IsCompleted", report.state == State::Completed);
    answer.SetBool("RestartNeeded", report.state == State::Mismatched);
    answer.SetBool("CommunicationFailed", report.state == State::Failed || isUnheard);
    if (!differential || report.state == State::Failed) return;
    for (std::size_t i = 0; i < report.missing.size(); ++i)
        answer.SetString(std::to_string(i), RangeText(report.missing[i]));
}

}  // namespace kelhttp

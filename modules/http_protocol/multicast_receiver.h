#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/thread.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/datagram_reader.h"
#include "modules/http_protocol/multicast_reception.h"
#include "modules/http_protocol/worker_pool.h"

namespace kelhttp {

struct MulticastSettings {
    KelString address;   ///< of the interface that groups are joined through; empty: as the routes say
    int timeout = 600;   ///< seconds without a datagram after which a reception ends
    int maxGroups = 16;  ///< receptions at the same time
};

/// The files that this device receives by multicast, at most one for each group and port. One thread reads
/// all sockets and writes the blocks; it runs from the first reception on. Complete files are verified on
/// other threads. All operations may be called from any thread; Stop waits for those threads.
class MulticastReceiver {
  public:
    using Clock = MulticastReception::Clock;
    struct Group {
        KelString address;  ///< dotted
        std::uint16_t port = 0;
        bool operator==(const Group&) const = default;
    };

    MulticastReceiver(MulticastSettings settings, const AliasTable& aliases, const KelDebug& log);
    ~MulticastReceiver();

    /// Waits for the file. A reception of the same file goes on, or starts again when its content was wrong;
    /// one of another file on the same group and port ends. 0, kKelErrorBadInput for values that cannot be
    /// used, kKelErrorNotAvailable when there are too many receptions, no space, or no way to join the group;
    /// `message` says which.
    unsigned int Start(const MulticastOrder& order, KelString& message);

    /// The same for the sender, which knows neither where the file goes nor its checksum: only for a
    /// reception that exists, of that size.
    unsigned int Restart(const Group& group, std::uint32_t blockSize, std::uint64_t fileSize,
                         KelString& message);

    /// Ends the receptions of a group address, whatever their port. What is not complete is dropped.
    void End(const KelString& groupAddress);

    /// Sets IsCompleted, RestartNeeded and CommunicationFailed in `answer` and, with `differential`, the
    /// missing blocks as strings "0", "1", …, each a number or a range "3-5"; at most kMaxRanges of them.
    /// Waits up to `patience` while a file is verified; none of the three is true when it is not done by
    /// then.
    void Report(const Group& group, bool differential, std::chrono::milliseconds patience,
                KelContainer& answer);
    static constexpr std::size_t kMaxRanges = 10000;

    /// Ends the receptions that have been silent for too long. Called by the thread every second.
    void EndSilent(Clock::time_point now);

    /// Ends all receptions and the threads.
    void Stop();

  private:
    using Reception = std::shared_ptr<MulticastReception>;
    using Receptions = std::vector<Reception>;
    class Thread;

    void Receive();
    void ReceiveFrom(std::uint64_t id);
    unsigned int Add(const MulticastOrder& order, KelString& message);
    unsigned int StartAgain(const Reception& reception, KelString& message);
    unsigned int Register(const Reception& reception, KelString& message);
    bool Watch(std::uint64_t id, const Reception& reception);
    void WakeThread();
    void Complete(const Reception& reception);
    void Finish(const Reception& reception);
    void GiveUp(const Reception& reception, const char* reason);
    Reception Find(const Group& group) const;
    Receptions Remove(const std::function<bool(const MulticastReception&)>& chosen);

    const MulticastSettings settings_;
    const AliasTable& aliases_;
    const KelDebug& log_;
    std::atomic<bool> stopping_ = false;
    UniqueFd epoll_;
    UniqueFd wakeUp_;        ///< an eventfd: the thread is to look around
    DatagramReader reader_;  ///< for the thread

    std::mutex startMutex_;     ///< one Start or Restart at a time; locked before mutex_
    mutable std::mutex mutex_;  ///< guards what follows; not held while a reception works
    std::map<std::uint64_t, Reception> receptions_;  ///< by a number that is never used again, 1 first
    std::uint64_t lastId_ = 0;

    WorkerPool completions_;  ///< verification, and calls of the file store
    std::unique_ptr<KelThread> thread_;
};

}  // namespace kelhttp

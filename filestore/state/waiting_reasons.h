#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "filestore/db/file_key.h"
#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/types.h"

class KelMetricsPage;

/// Why files wait. The steps note what stopped them; nothing of it is written to the disk, because a restart
/// tries everything again. What has not been noted is derived from the rows: see exchange/reason_of_file.h.
namespace filestore {

/// What keeps a file from moving on. Each has a name on the wire, which is a label of metrics, too, and a
/// sentence (waiting_reasons.cpp).
enum class Waiting : unsigned char {
    NotTried,                 ///< its turn has not come
    Announced,                ///< announced to this device, not yet downloaded
    Transferring,             ///< bytes, whole
    AwaitingContent,          ///< another device is to send it, by multicast or upload
    AwaitingAcknowledgement,  ///< peer: announced, has not acknowledged
    WakeUpSent,               ///< peer: did not answer, is being woken
    PeerUnreachable,          ///< peer
    PeerRefused,              ///< peer, detail: its answer
    CutOff,                   ///< peer: the connection broke; bytes, whole
    ChecksumWrong,            ///< peer, count
    WindowClosed,
    DiskFull,         ///< bytes free, whole: bytes needed, 0 when unknown
    LocalFailure,     ///< detail
    ParentUnknown,    ///< peer, detail
    ParentLacksFile,  ///< peer: it looks for the file further up
    ToBePacked,
    ConsumerLater,  ///< detail: the consumer
    LastTryFailed,  ///< before the agent was started; why is no longer known
    // Of a target whose file is to be sent to a group:
    GatheringTargets,   ///< more targets may join
    AwaitingGroup,      ///< another transfer is in progress
    AwaitingRequests,   ///< detail: how many devices take it, and how many are needed
    MulticastUnderWay,  ///< the target came too late for the transfer of its file that is in progress
    // Of a target below, as its parent sees it:
    UnknownThere,  ///< peer does not know the file
    NotAsked,      ///< detail
    Arrived,       ///< it does not wait in the file store any longer
};

/// Its name on the wire.
const char* NameOf(Waiting code);

/// The step that a file waits for. A reason counts only while the row is in a status that this step serves.
enum class WaitingStep : unsigned char { Download, Acknowledge, Request, Handle, Send, Upload, Announce };

struct WaitingReason {
    Waiting code = Waiting::NotTried;
    KelString peer{};    ///< "host:port" of the other device
    KelString detail{};  ///< a phrase that the sentence ends with
    std::uint64_t bytes = 0;
    std::uint64_t whole = 0;
    std::uint32_t count = 0;   ///< tries that have ended in this way
    std::int64_t since = 0;    ///< seconds since the epoch, as is the next
    std::int64_t nextTry = 0;  ///< 0: not known
    bool operator==(const WaitingReason&) const = default;

    /// The sentence for people.
    KelString Text() const;
    /// Writes Code, Message, Peer, Bytes, Size, Count, Since and NextTry; those that say nothing are left
    /// out.
    void Write(KelContainer& values) const;
};

/// The reason that a failed call gives. `error`: kelcore/error_codes.h; `peer`: as in WaitingReason.
WaitingReason ReasonOfCall(unsigned int error, const KelString& peer);
/// The same of a transfer (kelcore/http/client.h); `status`: of the answer when there was one.
WaitingReason ReasonOfTransfer(unsigned int result, unsigned int status, const KelString& peer,
                               const KelString& errorText);

/// "host:port" of a call URL, a device URL or a path name; without credentials.
KelString PeerName(const KelString& url);

/// The noted reasons: one for each file of a side, and one for each device that announcements are made to.
/// Any thread. `since` stays while the same thing stops the same step; a file's reason is removed when it
/// moves on.
class WaitingReasons {
  public:
    void Note(Side side, std::uint64_t fileId, WaitingStep step, WaitingReason reason);
    void MovedOn(Side side, std::uint64_t fileId);
    /// `createTime` of the row: older reasons are those of a deleted row whose number was given again.
    std::optional<WaitingReason> Find(Side side, std::uint64_t fileId, WaitingStep step,
                                      std::int64_t createTime) const;

    void NoteDevice(const KelString& deviceGuid, WaitingReason reason);
    void DeviceAnswered(const KelString& deviceGuid);
    std::optional<WaitingReason> FindDevice(const KelString& deviceGuid) const;

    /// A transfer that is in progress, which had `bytes` bytes at its beginning.
    struct Transfer {
        std::uint64_t bytes = 0;
        std::int64_t since = 0;
        Side side = Side::Downstream;
        std::uint64_t fileId = 0;
        std::shared_ptr<const std::atomic<std::uint64_t>> sent = {};  ///< of what goes up: bytes by now
    };
    void BeginTransfer(const Transfer& transfer);
    void EndTransfer(Side side, std::uint64_t fileId);
    std::optional<Transfer> FindTransfer(Side side, std::uint64_t fileId) const;
    KelVector<Transfer> ListTransfers() const;

    /// Files whose download waits for space on the disk.
    struct SpaceShortage {
        std::uint32_t files = 0;
        std::int64_t since = 0;
        std::uint64_t needed = 0;  ///< by the largest of them
    };
    SpaceShortage GetSpaceShortage() const;

    /// How many reasons have been noted for the files of each step, and for devices (Announce).
    using Counts = std::map<std::pair<WaitingStep, Waiting>, std::int64_t>;
    Counts CountFiles(Side side) const;
    Counts CountDevices() const;
    /// The transfers in progress.
    std::int64_t CountTransfers(Side side) const;

    /// Adds how often steps have failed since the process was started, by step and reason.
    static void CollectFailures(KelMetricsPage& page);

    void Clear();

  private:
    using Key = std::tuple<Side, std::uint64_t, KelString>;  ///< FileId 0: of a device
    struct Entry {
        WaitingStep step = WaitingStep::Download;
        WaitingReason reason;
        std::int64_t noted = 0;
    };

    void Put(Key key, WaitingStep step, WaitingReason reason);
    void DropOld(std::int64_t now) KEL_REQUIRES(mutex_);

    static constexpr std::size_t kFewEntries = 500;

    mutable KelMutex mutex_;  ///< a leaf: nothing is called under it
    std::map<Key, Entry> entries_ KEL_GUARDED_BY(mutex_);
    std::size_t dropAt_ KEL_GUARDED_BY(mutex_) = kFewEntries;  ///< so many entries; the old ones go then
    std::map<Key, Transfer> transfers_ KEL_GUARDED_BY(mutex_);
};

WaitingReasons& Reasons();

/// Marks a transfer as in progress for as long as it lives.
class TransferMark {
  public:
    TransferMark(Side side, std::uint64_t fileId, std::uint64_t bytes,
                 std::shared_ptr<const std::atomic<std::uint64_t>> sent = {})
        : side_(side), fileId_(fileId) {
        Reasons().BeginTransfer({bytes, std::time(nullptr), side, fileId, std::move(sent)});
    }
    ~TransferMark() { Reasons().EndTransfer(side_, fileId_); }
    TransferMark(const TransferMark&) = delete;
    TransferMark& operator=(const TransferMark&) = delete;

  private:
    Side side_;
    std::uint64_t fileId_;
};

}  // namespace filestore

#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "modules/delivery/received_file.h"

/// The outcome for a received file, as its receipt states it.
enum class DeliveryOutcome : unsigned char { Open, Delivered, Failed };

/// "open", "delivered" or "failed".
const char* DeliveryOutcomeName(DeliveryOutcome outcome);
std::optional<DeliveryOutcome> ParseDeliveryOutcome(const KelString& text);

/// Work left for a received file. While its outcome is open: to copy it and run its command. Afterwards: to
/// hand over its receipt.
struct DeliveryJob {
    std::uint64_t id = 0;
    ReceivedFile file;
    KelString destination;
    std::int64_t size = 0;  ///< bytes; 0 when unknown
    std::int64_t time = 0;  ///< when the job came, seconds since the epoch
    DeliveryOutcome outcome = DeliveryOutcome::Open;
    KelString message;      ///< why it failed
    bool isCopied = false;  ///< by this process; not written to disk, because the content shows it
    bool isKept = false;    ///< as it was when it came, it is on the disk
    bool isTaken = false;   ///< DrainTaken gives its file, or has given it
    /// What is not genuine, for the file store to remove once the receipt is handed over. In memory only.
    std::optional<FileKey> refused = {};
};

/// The jobs in the order in which they came. Each is stored in a file of its own ("<id>.xml", a container
/// with the values of the received file and Destination, FileSize, Time, Outcome, Message, and what the
/// master has signed, SignedSize and Sha256), so that it survives a restart of the agent. A destination has
/// at most one open job. Any thread.
class JobQueue {
  public:
    explicit JobQueue(const KelDebug& log) : log_(log) {}

    /// Loads the jobs from `folder`, which is created; false when it cannot be. Files that hold no job are
    /// removed with a warning.
    bool Load(const KelString& folder);

    /// Adds an open job and returns its id. An open job for the same destination ends: it is removed when it
    /// is for the same content, whose publications the new one takes over, else it has failed. A job that
    /// cannot be written to disk is logged as an error and exists in memory only until KeepAll succeeds.
    /// `time`: seconds since the epoch.
    std::uint64_t Add(const ReceivedFile& file, const KelString& destination, std::int64_t size,
                      std::int64_t time);

    /// Adds a job of which only the receipt is to be handed over. It is in memory only: it follows from an
    /// order.
    void AddConcluded(const ReceivedFile& file, DeliveryOutcome outcome, const KelString& message,
                      std::int64_t time, const std::optional<FileKey>& refused = {});

    /// True when there is a job for this publication.
    bool Names(const KelString& publication) const;
    /// The time of the latest publication that there is a job for at this destination, 0 without any.
    std::int64_t LatestPublication(const KelString& destination) const;

    /// Ends the open job of a destination as failed if it is for another content than `file`.
    void EndOtherJobFor(const ReceivedFile& file, const KelString& destination);

    /// Writes the open jobs that are in memory only; true when there are none left.
    bool KeepAll();

    /// The files for which this queue is responsible since the last call, because their jobs are on the disk
    /// and nothing is to be copied from the file store any more, or with which it has finished: the file
    /// store need not keep them.
    KelVector<FileKey> DrainTaken();
    /// Adds a file that needs no job, unless one for it is open.
    void AddTaken(const ReceivedFile& file, const KelString& destination);
    /// True when there is a job for the file, or it is among those that DrainTaken would give.
    bool Knows(const FileKey& key) const;
    /// True while the file is still to be copied from the file store.
    bool NeedsSource(const FileKey& key) const;

    void SetCopied(std::uint64_t id);

    /// Ends the work on an open job; its receipt is now due. With `keep` the outcome is written to disk:
    /// needed when it cannot be determined again after a restart.
    void SetOutcome(std::uint64_t id, DeliveryOutcome outcome, const KelString& message, bool keep);

    /// Ends it as failed, since what has come is not the master's.
    void SetRefused(std::uint64_t id, const KelString& message);

    void Remove(std::uint64_t id);

    /// True while the job exists and its outcome is open.
    bool IsOpen(std::uint64_t id) const;

    /// The jobs whose outcome is open.
    KelVector<DeliveryJob> ListOpen() const;

    /// The jobs that wait for their receipt to be handed over.
    KelVector<DeliveryJob> ListConcluded() const;

  private:
    KelString PathOf(std::uint64_t id) const KEL_REQUIRES(mutex_);
    void DropOpenJobFor(const ReceivedFile& file, const KelString& destination) KEL_REQUIRES(mutex_);
    void Close(DeliveryJob& job, DeliveryOutcome outcome, const KelString& message) KEL_REQUIRES(mutex_);
    bool Keep(const DeliveryJob& job) KEL_REQUIRES(mutex_);
    void Erase(std::uint64_t id) KEL_REQUIRES(mutex_);
    void KeepNew(DeliveryJob& job) KEL_REQUIRES(mutex_);
    void TakeIfHeld(DeliveryJob& job) KEL_REQUIRES(mutex_);
    void LoadJob(const KelString& fileName) KEL_REQUIRES(mutex_);
    KelVector<DeliveryJob> List(bool open) const;

    const KelDebug& log_;
    mutable KelMutex mutex_;  ///< held across writes of the small job files
    KelString folder_ KEL_GUARDED_BY(mutex_);
    std::map<std::uint64_t, DeliveryJob> jobs_ KEL_GUARDED_BY(mutex_);
    KelHash<KelString, std::uint64_t> open_ KEL_GUARDED_BY(mutex_);  ///< ids of the open jobs by destination
    KelVector<FileKey> taken_ KEL_GUARDED_BY(mutex_);
    bool keepFails_ KEL_GUARDED_BY(mutex_) = false;  ///< it is logged once
    std::uint64_t lastId_ KEL_GUARDED_BY(mutex_) = 0;
};

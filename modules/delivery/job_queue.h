#pragma once

#include <cstdint>

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "modules/delivery/received_file.h"

/// Something still to be done for a received file: copying it, when that failed, and running its command.
struct DeliveryJob {
    std::uint64_t id = 0;
    ReceivedFile file;
    KelString destination;
    bool isCopied = false;  ///< by this process; not kept on disk, since the content tells it
};

/// The open jobs in the order in which they came, each kept in a file of its own ("<id>.xml", a container
/// with the values of the received file and Destination), so that they outlive the agent. Any thread.
class JobQueue {
  public:
    explicit JobQueue(const KelDebug& log) : log_(log) {}

    /// Takes over the jobs kept in `folder`, which is created; false when it cannot be. Files that hold no
    /// job are removed with a warning.
    bool Load(const KelString& folder);

    /// Adds a job and returns its id; an older one for the same destination is dropped. A job that cannot be
    /// kept on disk is an error in the log and lives in memory only.
    std::uint64_t Add(const ReceivedFile& file, const KelString& destination);
    void SetCopied(std::uint64_t id);
    void Remove(std::uint64_t id);
    /// Removes the job of a destination that got another content.
    void RemoveFor(const KelString& destination);

    bool Contains(std::uint64_t id) const;
    KelVector<DeliveryJob> List() const;

  private:
    KelString PathOf(std::uint64_t id) const KEL_REQUIRES(mutex_);
    void DropFor(const KelString& destination) KEL_REQUIRES(mutex_);
    void LoadJob(const KelString& fileName) KEL_REQUIRES(mutex_);

    const KelDebug& log_;
    mutable KelMutex mutex_;  ///< held across writes of the small job files
    KelString folder_ KEL_GUARDED_BY(mutex_);
    KelVector<DeliveryJob> jobs_ KEL_GUARDED_BY(mutex_);
    std::uint64_t lastId_ KEL_GUARDED_BY(mutex_) = 0;
};

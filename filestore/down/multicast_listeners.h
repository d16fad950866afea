#pragma once

#include <cstdint>
#include <functional>
#include <set>

#include "filestore/db/multicast_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/multicast_calls.h"
#include "kel/mutex.h"

namespace filestore {

/// The devices of one multicast transfer: what they have received, and what becomes of those that have not
/// received everything. Devices are called side by side, so that one that is gone holds up no other one.
///
/// Used by the multicast thread only.
class MulticastListeners {
  public:
    /// `file`: the row, with its route. `isCancelled` ends the calls.
    MulticastListeners(const FileStoreEntry& file, std::function<bool()> isCancelled);

    const FileStoreEntry& File() const { return file_; }

    /// Reads which devices still listen. False when there are none, or the database cannot be read.
    bool ReadListeners();

    /// True when as many devices as the settings ask for have the file, or are known to receive nothing.
    bool IsOver();

    /// The addresses from which this device reaches those that listen.
    std::set<KelString> LocalAddresses() const;

    /// Asks the devices that listen what they have. `retry`: the number of the pass that follows, 0 for none.
    void Examine(std::uint32_t retry);

    /// What the next pass has to send: nothing, everything, or these blocks.
    enum class Need : unsigned char { Nothing, Everything, Blocks };
    Need NextNeed() const;
    std::set<std::uint32_t> NextBlocks() const;

    /// Has the devices that still listen stop, and get the file in another way.
    void Finish();

  private:
    void Judge(const MulticastListener& listener, Reception reception, std::uint32_t retry);
    void SetStatus(const MulticastListener& listener, const KelString& status);
    void StartUnicastRecovery(const MulticastListener& listener, FileTarget& row);
    void Dismiss(const MulticastListener& listener);

    const FileStoreEntry file_;
    const std::function<bool()> isCancelled_;
    KelVector<MulticastListener> listeners_;  ///< without those that succeeded
    std::size_t total_ = 0;                   ///< devices at the beginning
    bool isRead_ = false;
    bool isExamined_ = false;
    bool isSuccess_ = false;  ///< the minimum success rate was reached

    mutable KelMutex mutex_;  ///< of what the calls that run side by side change
    std::size_t completed_ KEL_GUARDED_BY(mutex_) = 0;
    std::set<std::uint64_t> failed_ KEL_GUARDED_BY(mutex_);  ///< TargetIds of devices without any reception
    bool isDifferential_ = false;
    bool mustSendAll_ KEL_GUARDED_BY(mutex_) = true;
    MissingBlocks missing_ KEL_GUARDED_BY(mutex_);
};

}  // namespace filestore

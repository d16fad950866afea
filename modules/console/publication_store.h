#pragma once

#include <cstdint>
#include <functional>

#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"
#include "modules/console/console_database.h"
#include "modules/console/device_report.h"

/// A published file and how many of its targets have it.
struct PublicationSummary {
    KelString id;
    FileKey file;
    std::int64_t fileSize = 0;    ///< bytes
    KelString sha256 = {};        ///< of the content; empty if published in a plain tree
    std::int64_t createTime = 0;  ///< seconds since the epoch
    std::int64_t orderTime = 0;   ///< when its targets were last sent an order for it; 0: never
    std::int32_t priority = 100;
    std::int32_t targets = 0;
    std::int32_t delivered = 0;
    std::int32_t failed = 0;
    std::int32_t withdrawn = 0;
    std::int32_t removed = 0;       ///< targets whose device was removed
    std::int64_t withdrawTime = 0;  ///< seconds since the epoch; 0: it is not withdrawn

    std::int32_t Pending() const { return targets - delivered - failed - withdrawn - removed; }
};

/// The state of a publication on one device.
struct PublicationTarget {
    KelString guid;
    KelString status;       ///< "pending", "delivered", "failed", "withdrawn" or "removed"
    std::int64_t time = 0;  ///< of the device's receipt, by its clock, seconds since the epoch; 0: none yet
    KelString message;
};

/// The publications and their targets in the console's database. Any thread.
class PublicationStore {
  public:
    explicit PublicationStore(ConsoleDatabase& database) : database_(database) {}

    /// `listener` is called after each receipt that was stored. Before the first use.
    void SetListener(std::function<void()> listener) { listener_ = std::move(listener); }

    /// Adds a publication that is pending on the devices `guids` (each once). When another one of the same
    /// type, label and name was created in the same second or later, its time becomes the second after that:
    /// devices compare the times. An error, with nothing added, when the database cannot be read or written.
    /// `alsoWrite` are statements of the same transaction.
    KelStatus Add(PublicationSummary& publication, const KelVector<KelString>& guids,
                  const KelVector<KelString>& alsoWrite = {});

    /// True when a publication other than `id` has this key, whatever has become of it.
    KelResult<bool> IsKnown(const FileKey& file, const KelString& id);

    /// Its targets have been sent an order at `time` (seconds since the epoch). False when that could not be
    /// written.
    bool SetOrdered(const KelString& id, std::int64_t time);

    /// Notes the digest of a publication that has none.
    void SetSha256(const KelString& id, const KelString& sha256);

    /// Removes a publication whose offer failed.
    void Remove(const KelString& id);

    /// Stores a receipt for its publications, and that the device was heard from at `now` (seconds since the
    /// epoch). A receipt that is older than the stored one changes no status. False when it could not be
    /// written.
    bool Store(const DeliveryReceipt& receipt, std::int64_t now);

    /// The publications, the latest first; with ids only those; unknown ones are left out.
    KelResult<KelVector<PublicationSummary>> List(const KelVector<KelString>& ids);

    /// The targets of a publication by GUID.
    KelResult<KelVector<PublicationTarget>> ListTargets(const KelString& id);

  private:
    ConsoleDatabase& database_;
    std::function<void()> listener_;
    KelMutex mutex_;  ///< held from reading the time of the latest publication until the next is written
};

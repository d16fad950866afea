#pragma once

#include <cstdint>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"
#include "modules/delivery/job_queue.h"

/// What the console wants of this device when a file is published again: that it requests the file and
/// delivers it once more.
struct DeliveryOrder {
    KelString publication;      ///< identifier, a path element
    std::int64_t time = 0;      ///< of the publication, by the master's clock, seconds since the epoch
    FileKey file;               ///< the wanted one
    bool bypass = false;        ///< of the request
    KelContainer info;          ///< of the request
    std::int64_t received = 0;  ///< when the order came, seconds since the epoch
    std::int64_t asked = 0;     ///< when the file was last requested by this process; 0: never

    KelContainer ToContainer() const;
};

/// Reads the FileInfo of an order that came as a file of this name, or what ToContainer has written. The
/// error names an unusable value.
KelResult<DeliveryOrder> ReadDeliveryOrder(const KelString& publication, const KelContainer& values);

/// The latest publication that was delivered to a destination, or failed there.
struct PastDelivery {
    std::int64_t publicationTime = 0;  ///< as of an order
    DeliveryOutcome outcome = DeliveryOutcome::Delivered;
    KelString message;
};

/// The orders whose file has not come yet or whose receipt has not been handed over, one file each
/// ("Orders/<publication>.xml"), and for each destination the latest publication ("Latest/<MD5 of the
/// destination>.xml"), so that an older order that comes late does not bring back an older content. Any
/// thread.
class Orders {
  public:
    /// Loads the orders from below `folder`; false when that cannot be created.
    bool Load(const KelString& folder);

    /// Adds an order unless there is one of the same publication. False when it is in memory only.
    bool Add(const DeliveryOrder& order);
    KelVector<DeliveryOrder> List() const;
    void SetAsked(const KelString& publication, std::int64_t time);
    void Remove(const KelVector<KelString>& publications);

    bool HasPast(const KelString& destination) const;
    std::optional<PastDelivery> FindPast(const KelString& destination) const;
    /// Remembers a concluded job with a publication, unless a later one is known; false when it cannot be
    /// written.
    bool Remember(const DeliveryJob& job);

  private:
    KelString PathOf(const KelString& publication) const KEL_REQUIRES(mutex_);
    KelString PastPathOf(const KelString& destination) const KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;  ///< held across reads and writes of the small files
    KelString folder_ KEL_GUARDED_BY(mutex_);
    KelVector<DeliveryOrder> orders_ KEL_GUARDED_BY(mutex_);
};

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
    std::int64_t size = 0;      ///< of the file, bytes; what the master has signed, like the next two
    KelString sha256;           ///< empty: in a plain tree
    KelContainer signature;     ///< Signed, see kelcore/keys/publication_signature.h
    std::int64_t received = 0;  ///< when the order came, seconds since the epoch
    std::int64_t asked = 0;     ///< when the file was last requested by this process; 0: never
    bool isRequested = false;   ///< the file may come
    bool isEnded = false;       ///< it is answered, though the file has not come
    bool isWithdrawn = false;   ///< it has ended without an answer

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
/// destination>.xml"), so that an older order that comes late does not bring back an older content. An order
/// that has ended before its file came stays, so that the file is not taken for one that was sent for its own
/// sake. Any thread.
///
/// Where files are signed, what is forgotten of destinations leaves a mark ("forgotten.xml"): publications
/// that are not later than all of it are too old for a destination of which nothing is known.
class Orders {
  public:
    /// Loads the orders from below `folder`; false when that cannot be created.
    bool Load(const KelString& folder);

    /// Adds an order unless there is one of the same publication, which, if it has ended, is to be answered
    /// once more. False when it is in memory only.
    bool Add(const DeliveryOrder& order);
    KelVector<DeliveryOrder> List() const;
    bool Has(const KelString& publication) const;
    /// Before the file is requested. False when it cannot be written, or the order does not wait any more.
    bool SetRequested(const KelString& publication);
    void SetAsked(const KelString& publication, std::int64_t time);
    /// In memory only until the answer is handed over: after a restart the order ends again. False when it
    /// does not wait any more.
    bool SetEnded(const KelString& publication);
    /// The file is not to be delivered any more.
    void Withdraw(const KelString& publication);
    /// The file has come, or will not come. Returns the orders for it that have ended.
    KelVector<DeliveryOrder> StopExpecting(const FileKey& file);
    /// The answer for these publications has been handed over. Orders that have ended and whose file may
    /// still come stay, the others go. Returns those that there were orders for.
    KelVector<KelString> SetAnswered(const KelVector<KelString>& publications);
    void Remove(const KelString& publication);

    bool HasPast(const KelString& destination) const;
    std::optional<PastDelivery> FindPast(const KelString& destination) const;
    /// A publication for this destination has to have this time, or a later one: that of the latest one, or
    /// one that is later than what was forgotten. 0: any.
    std::int64_t EarliestFor(const KelString& destination) const;
    /// Remembers a concluded job with a publication, unless a later one is known; false when it cannot be
    /// written.
    bool Remember(const DeliveryJob& job);
    /// Forgets what was remembered before `before` (seconds since the epoch) of destinations that hold no
    /// file any more. With `kept`, the latest so many of these are kept, and what is forgotten leaves a mark.
    /// Once a day; reads all of it.
    void ForgetPast(std::int64_t before, std::optional<std::size_t> kept);

  private:
    DeliveryOrder* Find(const KelString& publication) KEL_REQUIRES(mutex_);
    bool Save(const DeliveryOrder& order) const KEL_REQUIRES(mutex_);
    bool Mark(std::int64_t publicationTime) KEL_REQUIRES(mutex_);
    KelString MarkPath() const KEL_REQUIRES(mutex_);
    KelString PathOf(const KelString& publication) const KEL_REQUIRES(mutex_);
    KelString PastPathOf(const KelString& destination) const KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;  ///< held across reads and writes of the small files
    KelString folder_ KEL_GUARDED_BY(mutex_);
    std::int64_t forgotten_ KEL_GUARDED_BY(mutex_) = 0;  ///< the latest time of a publication; 0: none
    KelVector<DeliveryOrder> orders_ KEL_GUARDED_BY(mutex_);
};

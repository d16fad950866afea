#pragma once

#include <cstdint>
#include <functional>

#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/console_database.h"
#include "modules/console/device_report.h"

/// A published file and how many of its targets have it.
struct PublicationSummary {
    KelString id;
    KelString fileType;
    KelString fileLabel;
    KelString fileName;
    KelString fileChecksum;
    std::int64_t fileSize = 0;    ///< bytes
    std::int64_t createTime = 0;  ///< seconds since the epoch
    std::int32_t priority = 100;
    std::int32_t targets = 0;
    std::int32_t delivered = 0;
    std::int32_t failed = 0;
};

/// What became of a publication on one device.
struct PublicationTarget {
    KelString guid;
    KelString status;       ///< "pending", "delivered" or "failed"
    std::int64_t time = 0;  ///< when the device told so, by its clock, seconds since the epoch; 0: it did not
    KelString message;
};

/// What became of earlier publications of a file's type, label and name on one device.
struct EarlierTarget {
    KelString guid;
    bool isSameContent = false;  ///< by the checksum
    KelString status;            ///< as of a target; always "delivered" for another content
    std::int64_t time = 0;       ///< as of a target
    KelString message;
    std::int64_t publication = 0;  ///< its place in the order of all publications
};

/// Decides where a file stands on its targets before it goes out. It may call nothing that takes a receipt.
using TargetDecision = std::function<KelVector<PublicationTarget>(const KelVector<EarlierTarget>&)>;

/// The publications and their targets in the console's database. Any thread.
class PublicationStore {
  public:
    explicit PublicationStore(ConsoleDatabase& database) : database_(database) {}

    /// Adds a publication with the targets (each GUID once) on which `decide` settles from what is known of
    /// earlier ones: for each device at most one entry of each status for the same content and the latest
    /// delivery of another content; targets that were never offered the file are left out. Neither a receipt
    /// nor another publication comes between the look and the writing. Returns the targets; an error, with
    /// nothing added, when the database does not answer.
    KelResult<KelVector<PublicationTarget>> Add(const PublicationSummary& publication,
                                                const TargetDecision& decide);

    /// Takes back a publication that did not come about.
    void Remove(const KelString& id);

    /// Notes what a device told about a file, for all publications of it, and that the device lived at `now`
    /// (seconds since the epoch). A receipt that is older than the known one changes no target. False when it
    /// could not be written.
    bool Take(const DeliveryReceipt& receipt, std::int64_t now);

    /// The publications, the latest first; with ids only those, as far as they are known.
    KelResult<KelVector<PublicationSummary>> List(const KelVector<KelString>& ids);

    /// The targets of a publication by GUID.
    KelResult<KelVector<PublicationTarget>> ListTargets(const KelString& id);

  private:
    KelResult<KelVector<EarlierTarget>> ListEarlierTargets(const PublicationSummary& publication);

    ConsoleDatabase& database_;
    KelMutex mutex_;  ///< the statuses of targets: held from the look at them until they are written
};

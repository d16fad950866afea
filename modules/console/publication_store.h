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
    std::int64_t createTime = 0;  ///< seconds since the epoch
    std::int32_t priority = 100;
    std::int32_t targets = 0;
    std::int32_t delivered = 0;
    std::int32_t failed = 0;
};

/// The state of a publication on one device.
struct PublicationTarget {
    KelString guid;
    KelString status;       ///< "pending", "delivered" or "failed"
    std::int64_t time = 0;  ///< of the device's receipt, by its clock, seconds since the epoch; 0: none yet
    KelString message;
};

/// What is known about one device and a file's type, label and name.
struct EarlierTarget {
    KelString guid;
    bool isSameContent = false;  ///< by the checksum
    /// "delivered" or "failed": from the device's receipt; empty: its store took the file on the way to
    /// others, or was offered it; "pending": a publication waits for it. Other contents are listed only when
    /// "delivered" or "pending".
    KelString status;
    std::int64_t time = 0;  ///< as of a target
    KelString message;
};

/// The state of a file on its targets before it goes out, and the devices that its offer reaches.
struct TargetDecision {
    KelVector<PublicationTarget> targets;
    KelVector<KelString> takers;  ///< GUIDs of the pending targets and of all devices on the way, each once
};

/// Makes the decision from what is known about earlier publications. Called with the store's lock held: it
/// must call nothing that stores a receipt.
using DecideTargetsFunction = std::function<TargetDecision(const KelVector<EarlierTarget>&)>;

/// The publications and their targets in the console's database, and the holders of published files: the
/// devices whose stores took one. Holders are kept apart from targets, because a store may take a file on its
/// way to others or on a user's request, and keeps it wherever its device moves in the tree. Any thread.
class PublicationStore {
  public:
    explicit PublicationStore(ConsoleDatabase& database) : database_(database) {}

    /// Adds a publication with the targets (each GUID once) that `decide` returns. For each device `decide`
    /// receives at most one entry of each status for the same content, of which "delivered", "failed" and the
    /// empty one exclude each other, and at most one of each for other contents, the latest delivery. The
    /// takers become holders. No receipt and no other publication is stored between the decision and its
    /// writing. Returns the targets; an error, with nothing added, when the database cannot be read or
    /// written.
    KelResult<KelVector<PublicationTarget>> Add(const PublicationSummary& publication,
                                                const DecideTargetsFunction& decide);

    /// Removes a publication whose offer failed, and the holders that exist only because of it.
    void Remove(const KelString& id);

    /// Stores a receipt for all publications of its file, and that the device was heard from at `now`
    /// (seconds since the epoch). If the file was ever published, the device becomes a holder, target or not,
    /// and so do the devices above it as they reported themselves, through which the file came. A receipt
    /// that is older than the stored one changes no status. False when it could not be written.
    bool Store(const DeliveryReceipt& receipt, std::int64_t now);

    /// The publications, the latest first; with ids only those; unknown ones are left out.
    KelResult<KelVector<PublicationSummary>> List(const KelVector<KelString>& ids);

    /// The targets of a publication by GUID.
    KelResult<KelVector<PublicationTarget>> ListTargets(const KelString& id);

  private:
    KelResult<KelVector<EarlierTarget>> ListEarlierTargets(const PublicationSummary& publication)
        KEL_REQUIRES(mutex_);

    ConsoleDatabase& database_;
    KelMutex
        mutex_;  ///< serialises changes of statuses: held from reading them until the new ones are written
};

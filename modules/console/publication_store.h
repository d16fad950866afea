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

/// What is known of one device and a file's type, label and name.
struct EarlierTarget {
    KelString guid;
    bool isSameContent = false;  ///< by the checksum
    /// "delivered" or "failed": the device told so; empty: its store took the file on the way to others, or
    /// was offered it; "pending": a publication waits for it. Only "delivered" and "pending" for another
    /// content.
    KelString status;
    std::int64_t time = 0;  ///< as of a target
    KelString message;
};

/// Where a file stands on its targets, and what its offer reaches.
struct SettledTargets {
    KelVector<PublicationTarget> targets;
    KelVector<KelString> takers;  ///< the GUIDs of the pending targets and all on the ways to them, each once
};

/// Decides where a file stands on its targets before it goes out. It may call nothing that takes a receipt.
using TargetDecision = std::function<SettledTargets(const KelVector<EarlierTarget>&)>;

/// The publications and their targets in the console's database, and the holders of what was published: the
/// devices whose stores took a file. They are kept apart from the targets, since a store may take a file on
/// its way to others or because somebody asked for it, and keeps it wherever its device moves. Any thread.
class PublicationStore {
  public:
    explicit PublicationStore(ConsoleDatabase& database) : database_(database) {}

    /// Adds a publication with the targets (each GUID once) on which `decide` settles from what is known: for
    /// each device at most one entry of each status for the same content, of which "delivered", "failed" and
    /// the empty one exclude each other, and of each for other contents, the latest delivery. The takers
    /// become holders. Neither a receipt nor another publication comes between the look and the writing.
    /// Returns the targets; an error, with nothing added, when the database does not answer.
    KelResult<KelVector<PublicationTarget>> Add(const PublicationSummary& publication,
                                                const TargetDecision& decide);

    /// Takes back a publication that did not come about, and the holders that it alone made.
    void Remove(const KelString& id);

    /// Notes what a device told about a file, for all publications of it, and that the device lived at `now`
    /// (seconds since the epoch). If the file was ever published, the device is a holder from now on, target
    /// or not, and so are the devices above it as they reported themselves, through which the file came. A
    /// receipt that is older than the known one changes no status. False when it could not be written.
    bool Take(const DeliveryReceipt& receipt, std::int64_t now);

    /// The publications, the latest first; with ids only those, as far as they are known.
    KelResult<KelVector<PublicationSummary>> List(const KelVector<KelString>& ids);

    /// The targets of a publication by GUID.
    KelResult<KelVector<PublicationTarget>> ListTargets(const KelString& id);

  private:
    KelResult<KelVector<EarlierTarget>> ListEarlierTargets(const PublicationSummary& publication);

    ConsoleDatabase& database_;
    KelMutex
        mutex_;  ///< the statuses of targets and holders: held from the look at them until they are written
};

#pragma once

#include <cstdint>
#include <optional>

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
    std::int64_t time = 0;  ///< by the device's clock, seconds since the epoch; 0 while pending
    KelString message;
};

/// The publications and their targets in the console's database. Any thread.
class PublicationStore {
  public:
    explicit PublicationStore(ConsoleDatabase& database) : database_(database) {}

    /// Adds a publication with one pending target per GUID (each once). A device that had this very file by
    /// an earlier publication counts as delivered at once, for it gets it no second time and sends no
    /// receipt. False, with nothing added, when it could not be written.
    bool Add(const PublicationSummary& publication, const KelVector<KelString>& guids);

    /// Takes back a publication that did not come about.
    void Remove(const KelString& id);

    /// Notes what a device told about a file, for all publications of it, and that the device lived at `now`
    /// (seconds since the epoch). A receipt that is older than the known one changes no target. False when it
    /// could not be written.
    bool Take(const DeliveryReceipt& receipt, std::int64_t now);

    /// The publications, the latest first; with an id only that one (none: it is unknown).
    KelResult<KelVector<PublicationSummary>> List(const std::optional<KelString>& id);

    /// The targets of a publication by GUID.
    KelResult<KelVector<PublicationTarget>> ListTargets(const KelString& id);

  private:
    ConsoleDatabase& database_;
};

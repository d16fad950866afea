#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/types.h"
#include "modules/delivery/job_queue.h"

/// Hands receipts to the file store, which sends them up the tree to the master: files of type
/// "DeliveryReceipt" under the type of the received file as their label. A receipt is a container: GUID,
/// DeviceUrl (of this device), FileType, FileLabel, FileName, FileChecksum, Status ("delivered" or "failed"),
/// Message (strings), FileSize (bytes), Time (when the file came, seconds since the epoch) (int64). The
/// receipt of a job is the same file each time it is made.
///
/// One thread at a time.
class ReceiptSender {
  public:
    explicit ReceiptSender(const KelDebug& log) : log_(log) {}

    /// The folder for receipts that are not handed over yet; what an earlier run left there is removed.
    void SetFolder(const KelString& folder);

    /// True when the file store took the receipt of a job whose outcome is known; failures are logged once.
    /// Calls local actions: no lock may be held.
    bool Send(const DeliveryJob& job);

  private:
    bool Fail(const KelString& problem);

    const KelDebug& log_;
    KelString folder_;
    KelString problem_;  ///< the last one logged
};

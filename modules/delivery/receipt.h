#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/types.h"
#include "modules/delivery/job_queue.h"

/// Hands receipts to the file store, which sends them up the tree to the master: files of type
/// "DeliveryReceipt" with the type of the received file as their label. A receipt is a container: GUID,
/// DeviceUrl (of this device), PublicationId (several, or none), FileType, FileLabel, FileName, FileChecksum,
/// Status ("delivered" or "failed"), Message (strings), FileSize (bytes), Time (when the file came, seconds
/// since the epoch) (int64), Refused (bool, only when what has come is not the master's). A receipt that is
/// made again for the same job is the same file, so that sending it twice does no harm.
///
/// One thread at a time.
class ReceiptSender {
  public:
    explicit ReceiptSender(const KelDebug& log) : log_(log) {}

    /// The folder for receipts that are not handed over yet. What an earlier run left there is removed: such
    /// receipts are made again from their jobs.
    void SetFolder(const KelString& folder);

    /// True when the file store accepted the receipt of a job whose outcome is known; a failure is logged
    /// once. Calls local actions: no lock may be held.
    bool Send(const DeliveryJob& job);

  private:
    bool Fail(const KelString& problem);

    const KelDebug& log_;
    KelString folder_;
    KelString problem_;  ///< last one logged
};

#pragma once

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kelcore/module.h"
#include "modules/delivery/collected.h"
#include "modules/delivery/inbox.h"
#include "modules/delivery/job_queue.h"
#include "modules/delivery/program.h"
#include "modules/delivery/receipt.h"

/// The delivery module: takes the files that arrive for this device into its inbox, runs the command of their
/// type and sends a receipt for each up the tree; on the master it collects the files that come up. Actions:
///
/// - DeliveryReceiveFile (FileType, FileLabel, FileName, FileChecksum, FilePath): subscribed to the event
///   FileStoreCallbackReceivedFile. A file that is there already with this content changes nothing. Results:
///   0; 1 for an unusable input or a call from another device; 44001 when it could not be copied now (the
///   copy is tried again by this module too).
/// - DeliveryListFiles -> Values[i]{FileType, FileLabel, FileName, FileChecksum, Path, Size (int64, bytes),
///   Time (int64, seconds since the epoch)}
/// - DeliveryCollect (as DeliveryReceiveFile, and SourceDevice): on the master subscribed to the event
///   FileStoreCallbackCopyUpstream. Results: 44003, the file stays in the store, also for files that are not
///   collected; 1 and 44001 as above.
/// - DeliveryListCollected -> Values[i]{Device, FileType, FileLabel, FileName, Path, Size (int64, bytes)}
///
/// Commands run one after the other on a thread of their own. A command that was due when the agent stopped,
/// or that was cut off by that, is run at the next start. A receipt tells "delivered" when the file is in
/// place and its command ended well, else "failed" with the reason; it is sent once, or again after a crash
/// right behind the hand-over.
class Delivery : public KelModule {
  public:
    Delivery();
    ~Delivery() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    void Unregister() override;

  private:
    enum class JobOutcome : unsigned char { Done, Later, Cancelled };

    unsigned int ReceiveFile(KelContainer* arguments);
    unsigned int ListFiles(KelContainer* arguments);
    unsigned int Collect(KelContainer* arguments);
    unsigned int ListCollected(KelContainer* arguments);
    unsigned int Refuse(KelContainer* arguments, const KelString& reason);
    unsigned int Take(const ReceivedFile& file);
    bool WorkOnJobs();
    bool SendReceipts();
    void Conclude(const DeliveryJob& job, DeliveryOutcome outcome, const KelString& message = {});
    JobOutcome WorkOnJob(const DeliveryJob& job);
    JobOutcome BringIntoPlace(const DeliveryJob& job);
    JobOutcome RunCommand(const DeliveryJob& job, const KelVector<KelString>& command);
    KelVector<KelString> CommandOf(const KelString& type) const;
    void RemoveUnfinishedCopies();
    void LogCopyFailure(const KelString& message) KEL_REQUIRES(mutexCopy_);

    Inbox inbox_;
    JobQueue jobs_;
    KelHash<KelString, KelVector<KelString>> commands_;  ///< by type; written at initialisation only
    KelMutex mutexCopy_;  ///< one copy at a time, so that an older content cannot replace a newer one
    KelString copyFailure_ KEL_GUARDED_BY(mutexCopy_);  ///< the last one logged
    CollectedFiles collected_;
    ReceiptSender receipts_;    ///< only the receipt thread uses it
    KelPeriodicThread thread_;  ///< copies and commands
    KelPeriodicThread receiptThread_;
};

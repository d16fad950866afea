#pragma once

#include <memory>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kelcore/failure_log.h"
#include "kelcore/left_overs.h"
#include "kelcore/module.h"
#include "modules/delivery/collected.h"
#include "modules/delivery/commands.h"
#include "modules/delivery/inbox.h"
#include "modules/delivery/job_queue.h"
#include "modules/delivery/orders.h"
#include "modules/delivery/receipt.h"

/// The delivery module: copies the files that arrive for this device to its inbox, runs the command of their
/// type and sends a receipt for each up the tree; on the master it collects the files that come up. Its
/// actions are listed in Register.
///
/// A file that is there already with this content changes nothing. A copy that fails is tried again by this
/// module too. The file store remembers a file until this module has reported it as taken: its job is on the
/// disk, or done. At its start it asks for those that it never took.
///
/// A file of type DeliveryOrder names another one in its FileInfo: that one is requested from the file store
/// of this device and delivered, in place or not, when it comes. The order itself goes nowhere. An order
/// fails when a later publication was delivered to the same place, or when the file does not come in time.
///
/// In a tree with keys, files and orders have to be signed by the master, for this device; their content is
/// compared with the signature while it is copied, and once more before a command runs. Others are refused
/// for good, with a receipt that says so, and removed from the file store, so that the genuine ones can come.
///
/// Commands run one after the other on a thread of their own. A command that was due or running when the
/// agent stopped is run at the next start. A receipt says "delivered" when the file is in place and its
/// command succeeded, else "failed" with the reason; it is sent once, or twice after a crash right after it
/// was handed over.
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
    std::span<const IniSetting> IniSettings() const override;
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override;

  private:
    enum class JobOutcome : unsigned char { Done, Later, Cancelled };

    unsigned int ReceiveFile(KelContainer* arguments);
    unsigned int ListFiles(KelContainer* arguments);
    unsigned int Collect(KelContainer* arguments);
    unsigned int Sync(KelContainer* arguments);
    unsigned int ListCollected(KelContainer* arguments);
    unsigned int Refuse(KelContainer* arguments, const KelString& reason);
    void RemoveUnfinishedCopies();

    // The work on the jobs (delivery_jobs.cpp).
    enum class Arrival : unsigned char { HandedOver, NeverTaken, Ordered };
    unsigned int Deliver(ReceivedFile file, const KelContainer& info, Arrival arrival);
    bool Admit(ReceivedFile& file, const KelContainer& info, const KelString& destination, Arrival& arrival);
    void FailAtOnce(const ReceivedFile& file, const KelString& message);
    void Refuse(const ReceivedFile& file, const KelString& message, const FileKey& refused);
    void EndAsRefused(std::uint64_t job, const FileKey& key, const KelString& message);
    bool IsNew(const ReceivedFile& file, const KelString& destination) const;

    // The work on orders (delivery_orders.cpp).
    unsigned int TakeOrder(const ReceivedFile& file, const KelContainer& info);
    KelVector<DeliveryOrder> WaitingOrders(const FileKey& key) const;
    std::int64_t EarliestPublication(const KelString& destination) const;
    void ConcludeTooLate(const ReceivedFile& file);
    bool AddOrders(ReceivedFile& file, const KelString& destination, const KelVector<DeliveryOrder>& orders);
    bool ForgetEndedOrders(const ReceivedFile& file, const KelString& destination);
    void ForgetPastFromTimeToTime();
    bool WorkOnOrders();
    bool IsOverdue(const DeliveryOrder& order) const;
    bool ConcludeOrder(const DeliveryOrder& order);
    void EndOrder(const DeliveryOrder& order, DeliveryOutcome outcome, const KelString& message);
    bool RequestOrdered(const DeliveryOrder& order);
    unsigned int Withdraw(KelContainer* arguments);
    void ForgetOrderFiles(const KelVector<KelString>& publications, const KelString& type);
    void ForgetInStore(const FileKey& key);
    bool AskForUntaken();
    bool ReportTaken();
    bool WorkOnJobs();
    bool SendReceipts();
    bool Remember(const DeliveryJob& job);
    void Conclude(const DeliveryJob& job, DeliveryOutcome outcome, const KelString& message = {});
    JobOutcome WorkOnJob(const DeliveryJob& job);
    JobOutcome BringIntoPlace(const DeliveryJob& job);
    void LogCopyFailure(const KelString& message);
    void LogCopySuccess();
    void LogCollected();

    Inbox inbox_;
    JobQueue jobs_;
    Orders orders_;
    KelVector<std::unique_ptr<KelLeftOverFolder>> leftOvers_;  ///< between Initialise and Cleanup
    std::int64_t orderTimeout_ = 0;                            ///< seconds
    std::int64_t pastForgotten_ = 0;  ///< when that was last done; on the receipt thread
    Commands commands_;
    /// One copy at a time, so that an older content cannot replace a newer one; also held while orders and
    /// jobs change together.
    KelMutex mutexCopy_;
    KelFailureLog failures_{Log()};
    CollectedFiles collected_;
    KelVector<KelString> collectedNow_;  ///< lines for the log once the files are in place; under mutexCopy_
    bool hasAsked_ = false;              ///< for what was never taken; only `thread_` uses it, and the next
    KelVector<FileKey> taken_;           ///< not yet reported
    ReceiptSender receipts_;             ///< only the receipt thread uses it
    KelPeriodicThread thread_;           ///< copies and commands
    KelPeriodicThread receiptThread_;    ///< orders and receipts
};

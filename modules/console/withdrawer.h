#pragma once

#include <atomic>
#include <shared_mutex>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device_directory.h"
#include "modules/console/publication_store.h"
#include "modules/console/withdrawal_store.h"

/// Withdraws publications, removes devices, and has the stores forget orders that are answered. Each is
/// recorded with what the file store of the master is to withdraw, which passes that on down the tree; what
/// it has not taken is handed over later. Any thread, concurrently; calls local actions, so that no lock may
/// be held.
class Withdrawer {
  public:
    /// `packages` is locked exclusively from the decision whether others need a file until its copy is
    /// removed.
    Withdrawer(const KelDebug& log, DeviceDirectory& directory, PublicationStore& publications,
               WithdrawalStore& withdrawals, std::shared_mutex& packages)
        : log_(log),
          directory_(directory),
          publications_(publications),
          withdrawals_(withdrawals),
          packages_(packages) {}

    /// As for the publisher. Before the first use.
    void SetFolder(const KelString& folder) { folder_ = folder; }

    /// The targets that have not begun never get the file: they are "withdrawn". Where no other publication
    /// needs the file, the stores forget it, and the copy of the master goes.
    KelStatus WithdrawPublication(const KelString& id);

    /// What is pending on a device is "removed", and the device is shown no more until it reports itself
    /// again. The result holds the output values of ConsoleRemoveDevice.
    KelResult<KelContainer> RemoveDevice(const KelString& guidOrName);

    /// Has the stores forget the orders of these publications, or of all, that have no pending target. What
    /// fails is left to a later call.
    void ForgetOrders(const KelVector<KelString>& ids);

    /// True when no publication has the file at `path` in the folder of published files; with `removes` it is
    /// removed then.
    bool ExaminePackage(const KelString& path, bool removes);

    /// Hands over to the file store what it has not taken yet; false when something is left.
    bool HandOver();
    /// True when HandOver has failed since it succeeded last.
    bool HasFailed() const { return hasFailed_; }

  private:
    KelResult<KelVector<StoreWithdrawal>> Plan(const PublicationSummary& publication);
    bool HandOverAll();
    bool HandOverOne(const StoreWithdrawal& withdrawal);
    bool RemovePackage(const FileKey& file);

    const KelDebug& log_;
    DeviceDirectory& directory_;
    PublicationStore& publications_;
    WithdrawalStore& withdrawals_;
    std::shared_mutex& packages_;
    KelString folder_;
    std::atomic<bool> hasFailed_ = false;
};

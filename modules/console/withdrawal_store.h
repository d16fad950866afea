#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"
#include "modules/console/console_database.h"

/// What the file store is to withdraw: the arguments of FileStoreWithdrawFile.
struct StoreWithdrawal {
    std::int64_t id = 0;      ///< given when it is stored
    FileKey file;             ///< without a checksum: all contents of this name
    KelContainer devicePath;  ///< empty: from no target, so that this device alone forgets the file
    bool keepContent = false;
    bool isRemoval = false;
};

/// A publication that is pending on a device, or was withdrawn from it.
struct OpenPublication {
    KelString id;
    FileKey file;
    bool isOrdered = false;  ///< it has an order
};

/// Withdrawn publications and removed devices in the console's database, and what the file store has yet to
/// learn of them. Any thread.
class WithdrawalStore {
  public:
    explicit WithdrawalStore(ConsoleDatabase& database) : database_(database) {}

    // Each records the change together with what the store is to withdraw, all or nothing.

    /// Withdraws a publication at `time` (seconds since the epoch) from its pending targets.
    KelStatus WithdrawPublication(const KelString& id, std::int64_t time,
                                  const KelVector<StoreWithdrawal>& withdrawals);
    /// Ends what is pending on a device, which is forgotten.
    KelStatus RemoveDevice(const KelString& guid, const KelVector<StoreWithdrawal>& withdrawals);
    /// A publication has no orders any more.
    KelStatus RemoveOrders(const KelString& id, const KelVector<StoreWithdrawal>& withdrawals);

    /// In the order in which they were recorded.
    KelResult<KelVector<StoreWithdrawal>> List();
    /// The store has taken one.
    bool Delete(std::int64_t id);

    /// True when a publication of this key, other than `except`, is not withdrawn.
    KelResult<bool> IsPublished(const FileKey& file, const KelString& except);
    /// The same for this content under this label and name, whatever its type.
    KelResult<bool> IsContentPublished(const FileKey& file);
    /// The devices on which a publication of this key, other than `except`, is pending.
    KelResult<KelVector<KelString>> PendingDevices(const FileKey& file, const KelString& except);
    KelResult<KelVector<OpenPublication>> OpenPublications(const KelString& guid);
    /// Of the publications `ids`, or of all when there are none: those with orders and no pending target.
    KelResult<KelVector<KelString>> ConcludedOrders(const KelVector<KelString>& ids);

  private:
    KelStatus Write(KelVector<KelString> statements, const KelVector<StoreWithdrawal>& withdrawals);
    KelResult<KelVector<KelString>> SelectTexts(const KelString& statement);

    ConsoleDatabase& database_;
};

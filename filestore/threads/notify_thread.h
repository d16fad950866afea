#pragma once

#include <memory>

#include "filestore/threads/file_thread_base.h"
#include "kel/types.h"

class DBResult;
namespace filestore {
struct NotificationRow;
}

/// Announces available files to the devices below and to the modules of this device.
class FileStoreNotifyThread : public FileThreadBase {
  public:
    FileStoreNotifyThread();

    /// One step: true when targets were notified.
    bool NotifyTargets();

    /// Announces the most urgent due targets (both arguments 0) or one target of one file: 1 when there were
    /// any, 0 when not or when the database did not take the outcome: they are announced again.
    int NotifyUnicastTargets(unsigned int fileId, unsigned int targetId);

  protected:
    bool DoWork() override;

  private:
    struct Outcome;

    static std::shared_ptr<const DBResult> SelectDueTargets();
    static std::shared_ptr<const DBResult> SelectTarget(unsigned int fileId, unsigned int targetId);
    static void NotifyLocal(const filestore::NotificationRow& row, Outcome& outcome);
    static void NotifyRemote(const filestore::NotificationRow& row, Outcome& outcome);
    static bool Record(const Outcome& outcome);
};

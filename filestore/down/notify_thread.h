#pragma once

#include "filestore/state/worker_loop.h"

/// Announces available files to their targets: to the devices below by calling them, to the modules of this
/// device by an event. A device that has been called is announced the file again after a while, until it
/// acknowledges (acknowledge.cpp); a target on this device is done with the event.
///
/// A batch holds up to 50 targets; the one place that decides their order is the ORDER BY of SelectDueTargets
/// in db/targets_table.cpp: priority first, then the weighted age of the file and of the last announcement.
class FileStoreNotifyThread : public FileThreadBase {
  public:
    FileStoreNotifyThread();

    /// One step: true when it announced anything.
    bool NotifyTargets();

    /// Notifies the due targets that come first (both arguments 0), or one target of one file, whatever its
    /// times. 1 when there were any; 0 when not, and when the database did not take the outcome: they stay
    /// due then. Public for tests, on any one thread.
    int NotifyUnicastTargets(unsigned int fileId, unsigned int targetId);

  protected:
    bool DoWork() override;
};

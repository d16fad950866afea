#pragma once

#include <chrono>

#include "filestore/down/announcement_calls.h"
#include "filestore/down/multicast_planner.h"
#include "filestore/state/worker_loop.h"

/// Announces available files to their targets: to the devices below by calling them, to the modules of this
/// device by an event; what was withdrawn is passed on in the same way, before anything else. A device that
/// has been called is announced the file again after a while, until it acknowledges (acknowledge.cpp); a
/// target on this device is done with the event.
///
/// A batch holds up to 50 targets; different devices are called side by side (announcement_calls.h). The one
/// place that decides their order is the ORDER BY of SelectDueTargets
/// in db/targets_table.cpp: priority first, then the weighted age of the file and of the last announcement.
///
/// While the multicast window is open, the planner decides about each file in this order: large ones go to
/// the multicast thread, the others are announced in batches as usual.
class FileStoreNotifyThread : public FileThreadBase {
  public:
    FileStoreNotifyThread();

    /// How long a batch waits for its slowest call before the next one begins; tests that look at what the
    /// calls have come to wait longer.
    inline static std::chrono::milliseconds patience{100};

    /// One step: true when it announced or planned anything.
    bool NotifyTargets();

    /// Notifies the due targets that come first (both arguments 0), or one target of one file, whatever its
    /// times. 1 when there were any; 0 when not, and when the database did not take the outcome: they stay
    /// due then. Of a batch, calls that take long go on when this returns; what they come to is recorded at
    /// the next call. Public for tests, on any one thread.
    int NotifyUnicastTargets(unsigned int fileId, unsigned int targetId);

  protected:
    void ThreadMain() override;
    bool DoWork() override;

  private:
    struct Division;

    bool NotifySingle(unsigned int fileId, unsigned int targetId);
    bool NotifyBatch();
    bool NotifyBesideMulticast();
    bool PrepareBatch();
    Division DivideDueTargets();
    filestore::MulticastPlanner::Way PlanTransfer(const FileStoreEntry& file);
    bool WithdrawFiles(unsigned int limit);
    bool NotifyThisDevice(KelVector<filestore::FileTarget>& rows);
    bool NotifyOtherDevices(KelVector<filestore::FileTarget> rows);

    filestore::AnnouncementCalls calls_;
    filestore::MulticastPlanner planner_{*this};
};

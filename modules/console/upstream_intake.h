#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <unordered_set>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/mutex.h"
#include "modules/console/device_directory.h"
#include "modules/console/publication_store.h"

/// Processes the files that the devices below send to the console: identity files and receipts. Any thread.
class UpstreamIntake {
  public:
    /// `repeat` is called with the GUID of a device that has moved or whose file store has lost its database,
    /// and with that of the master when it reports for the first time in this process: its databases may have
    /// been restored from a backup. False when it is to be called again.
    UpstreamIntake(const KelDebug& log, DeviceStore& devices, PublicationStore& publications,
                   std::function<bool(const KelString&)> repeat)
        : log_(log), devices_(devices), publications_(publications), repeat_(std::move(repeat)) {}

    /// Processes the file that the arguments of the file store's event describe (FileType, SourceDevice,
    /// FilePath), arrived at `now` (seconds since the epoch). Results: kKelAnswerStaysHere for the console's
    /// own types, also for an unusable file, which is logged and changes nothing; kKelAnswerTryLater when the
    /// file could not be read or the database not be written; 0 for any other type.
    unsigned int Receive(const KelContainer& file, std::int64_t now);

  private:
    KelResult<bool> StoreIdentity(const KelContainer& content, const KelString& sourceDevice,
                                  std::int64_t now);
    bool RepeatWhenMoved(const KelString& guid, bool hasMoved);
    KelResult<bool> StoreReceipt(const KelContainer& content, const KelString& sourceDevice,
                                 std::int64_t now);

    const KelDebug& log_;
    DeviceStore& devices_;
    PublicationStore& publications_;
    std::function<bool(const KelString&)> repeat_;
    std::atomic<bool> hasMasterReported_ = false;
    KelMutex mutex_;
    /// The devices for which this is still to be done. Lost with the process: its start repeats everything.
    std::unordered_set<KelString> moved_ KEL_GUARDED_BY(mutex_);
};

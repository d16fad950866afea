#pragma once

#include <cstdint>
#include <unordered_set>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/mutex.h"
#include "modules/console/device_directory.h"
#include "modules/console/publication_store.h"
#include "modules/console/publisher.h"
#include "modules/console/withdrawer.h"

/// Processes the files that the devices below send to the console: identity files and receipts. Any thread.
class UpstreamIntake {
  public:
    UpstreamIntake(const KelDebug& log, DeviceStore& devices, PublicationStore& publications,
                   Publisher& publisher, Withdrawer& withdrawer)
        : log_(log),
          devices_(devices),
          publications_(publications),
          publisher_(publisher),
          withdrawer_(withdrawer) {}

    /// Processes the file that the arguments of the file store's event describe (FileType, SourceDevice,
    /// FilePath), arrived at `now` (seconds since the epoch). Results: kKelAnswerStaysHere for the console's
    /// own types, also for an unusable file, which is logged and changes nothing; kKelAnswerTryLater when the
    /// file could not be read or the database not be written; 0 for any other type.
    unsigned int Receive(const KelContainer& file, std::int64_t now);

  private:
    KelResult<bool> StoreIdentity(const KelContainer& content, const KelString& sourceDevice,
                                  std::int64_t now);
    bool RepeatWhenBack(const KelString& guid, bool isBack);
    KelResult<bool> StoreReceipt(const KelContainer& content, const KelString& sourceDevice,
                                 std::int64_t now);

    const KelDebug& log_;
    DeviceStore& devices_;
    PublicationStore& publications_;
    Publisher& publisher_;
    Withdrawer& withdrawer_;
    KelMutex mutex_;
    /// The devices that have moved or were away and for which Repeat is due. Lost with the process, whose
    /// next start repeats what is pending.
    std::unordered_set<KelString> back_ KEL_GUARDED_BY(mutex_);
};

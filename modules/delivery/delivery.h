#pragma once

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/delivery/delivery_thread.h"
#include "modules/delivery/inbox.h"
#include "modules/delivery/job_queue.h"
#include "modules/delivery/program.h"

/// The delivery module: takes the files that arrive for this device into its inbox and runs the command of
/// their type. Actions:
///
/// - DeliveryReceiveFile (FileType, FileLabel, FileName, FileChecksum, FilePath): subscribed to the event
///   FileStoreCallbackReceivedFile. A file that is there already with this content changes nothing. Results:
///   0; 1 for an unusable input or a call from another device; 44001 when it could not be copied now (the
///   copy is tried again by this module too).
/// - DeliveryListFiles -> Values[i]{FileType, FileLabel, FileName, FileChecksum, Path, Size (int64, bytes),
///   Time (int64, seconds since the epoch)}
///
/// Commands run one after the other on a thread of their own. A command that was due when the agent stopped,
/// or that was cut off by that, is run at the next start.
class Delivery : public KelModule {
  public:
    Delivery();
    ~Delivery() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    void Activate() override;
    void Cleanup() override;
    void Unregister() override;

  private:
    enum class JobOutcome : unsigned char { Done, Later, Cancelled };

    unsigned int ReceiveFile(KelContainer* arguments);
    unsigned int ListFiles(KelContainer* arguments);
    unsigned int Take(const ReceivedFile& file);
    bool WorkOnJobs();
    JobOutcome WorkOnJob(const DeliveryJob& job);
    JobOutcome BringIntoPlace(const DeliveryJob& job);
    JobOutcome RunCommand(const DeliveryJob& job, const KelVector<KelString>& command);
    KelVector<KelString> CommandOf(const KelString& type) const;
    void LogCopyFailure(const KelString& message) KEL_REQUIRES(mutexCopy_);
    void LogEnd(const DeliveryJob& job, const KelString& program, const ProgramResult& result);

    Inbox inbox_;
    JobQueue jobs_;
    KelHash<KelString, KelVector<KelString>> commands_;  ///< by type; written at initialisation only
    KelMutex mutexCopy_;  ///< one copy at a time, so that an older content cannot replace a newer one
    KelString copyFailure_ KEL_GUARDED_BY(mutexCopy_);  ///< the last one logged
    DeliveryThread thread_;
};

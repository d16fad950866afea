#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <thread>

#include "filestore/db/targets_table.h"
#include "filestore/db/withdrawals_table.h"
#include "kel/mutex.h"
#include "kel/types.h"

namespace filestore {

/// Announces files to other devices, and withdraws them, many devices side by side: a device that does not
/// answer delays no other one. The files of one device are announced one after the other; after the first
/// failure the rest of them count as failed too.
///
/// Used by the notify thread only; the calls run on threads of their own and change no rows. Whenever a call
/// ends that Wait does not wait for, the notify thread is woken to collect its outcome.
class AnnouncementCalls {
  public:
    AnnouncementCalls() = default;
    ~AnnouncementCalls() { Finish(); }
    AnnouncementCalls(const AnnouncementCalls&) = delete;
    AnnouncementCalls& operator=(const AnnouncementCalls&) = delete;

    enum class Begun : unsigned char { Yes, NoRoom };

    /// Begins to announce `rows` to the device that they all name, which is not busy. No room: as many calls
    /// are in progress as there may be, or the device did not answer last time and enough of these are being
    /// tried.
    Begun Begin(KelVector<FileTarget> rows);
    /// The same for withdrawals that one device has to learn of.
    Begun Begin(KelVector<FileWithdrawal> rows);

    /// True when no device can be called before a call has ended.
    bool IsFull() const;

    /// The devices that are being called.
    KelVector<KelString> BusyDevices() const;

    enum class For : unsigned char {
        All,
        Prompt  ///< those of devices that have answered so far and most probably will now
    };
    /// Waits until these calls have ended, but not longer than `patience`.
    void Wait(std::chrono::milliseconds patience, For what);

    /// What the calls that have ended since the last Collect have come to.
    AnnouncementOutcome Collect();

    /// Waits for all calls; their outcome is lost, so that these files are announced again.
    void Finish();

  private:
    struct Call {
        KelString device;
        std::chrono::steady_clock::time_point begin;
        bool isSuspect = false;  ///< it did not answer last time
        bool hasEnded = false;   ///< guarded by mutex_, as are the next two
        bool isSilent = false;   ///< it did not answer
        AnnouncementOutcome outcome;
        std::thread thread;
    };

    /// What the calls of one device have come to, besides the outcome of its rows.
    struct Ended {
        unsigned int error = 0;  ///< of the last one
        FileStoreTarget target;  ///< by which the device is woken
    };
    using Work = std::function<Ended(AnnouncementOutcome&)>;

    Begun Start(const KelString& device, Work work);
    void Run(Call& call, const Work& work);
    bool HaveAllEnded() const KEL_REQUIRES(mutex_);
    bool HavePromptOnesEnded() const KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;
    std::condition_variable_any ended_;
    std::list<Call> calls_ KEL_GUARDED_BY(mutex_);
    bool isWaiting_ KEL_GUARDED_BY(mutex_) = false;
    std::set<KelString> silent_;  ///< devices that did not answer last time; the notify thread's own
};

/// Time-outs of a call, seconds.
inline constexpr int kConnectTimeout = 3;
inline constexpr int kCallTimeout = 15;

/// Notes for the reasons of waiting what calling the device of `target` has come to, and has it woken when it
/// may be. Any thread.
void NoteCall(const FileStoreTarget& target, unsigned int error);

/// Not sent: the error of a call to a device that answered, but takes files from its parent only.
inline constexpr unsigned int kNotItsParent = 44901;

/// Announces one file to the device of its row. 0, the error of the call, or kNotItsParent. Targets on a
/// device that has another parent are removed. Any thread; network.
unsigned int AnnounceTo(const FileTarget& row);

}  // namespace filestore

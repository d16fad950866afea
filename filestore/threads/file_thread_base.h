#pragma once

#include "kel/thread.h"
#include "kel/types.h"

/// The loop of every worker thread: wait as long as the ini file says, do one unit of work, repeat. The
/// setting is read again before every wait; 0 ends the thread.
class FileThreadBase : public KelThread {
  public:
    FileThreadBase(KelString section, KelString key, int defaultSeconds);
    ~FileThreadBase() override = default;

    /// Wakes the thread from its wait when it is running and not being cancelled. From any thread.
    void WakeUp(unsigned long value = 0);

  protected:
    void ThreadMain() override;

    /// One unit of work, on this thread. True when something was done.
    virtual bool DoWork() = 0;

  private:
    int ReadSleepSeconds() const;
    void WorkOnce();        ///< DoWork; what it throws is logged
    bool IsToGoOn() const;  ///< false, with the log line, once the thread is cancelled

    KelString section_;
    KelString key_;
    int defaultSeconds_;
};

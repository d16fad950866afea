#pragma once

#include <condition_variable>
#include <mutex>

/// Lets action calls in only while the databases are open, and lets the clean-up wait for those that run:
/// other modules may call at any time, on any thread.
class FileStoreActionGate {
  public:
    /// Entering a call, for its duration. A call made from within another one on the same thread passes even
    /// while the gate closes, so that it cannot block the call around it.
    class Pass {
      public:
        explicit Pass(FileStoreActionGate& gate);
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        bool IsGranted() const { return granted_; }

      private:
        FileStoreActionGate& gate_;
        bool granted_;
    };

    void Open();

    /// Refuses new calls and waits until those inside have ended. Not from within a call.
    void Close();

  private:
    bool Enter();
    void Leave();

    std::mutex mutex_;  ///< open_ and inside_
    std::condition_variable empty_;
    bool open_ = false;
    unsigned int inside_ = 0;
};

/// The gate of the module's actions: opened by a successful initialisation, closed by the clean-up.
FileStoreActionGate& FileStoreGetActionGate();

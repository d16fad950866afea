#pragma once

#include <condition_variable>
#include <mutex>

/// Admits action calls only while the databases are open, and makes the clean-up wait for the calls in
/// progress: other modules and devices may call at any time, on any thread.
class FileStoreActionGate {
  public:
    /// Admission for the duration of one call. A call made from within another one on the same thread is
    /// admitted even while the gate closes: the outer call, for which Close waits, must be able to end.
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

    /// Refuses new calls and waits until those in progress have ended. Not to be called from within a call.
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

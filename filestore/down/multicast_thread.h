#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <set>

#include "filestore/down/multicast_listeners.h"
#include "filestore/state/worker_loop.h"

/// Sends planned files (multicast_planner.h) to their groups, one after the other. A transfer is repeated for
/// the devices that lack something of it, and ends with a fall-back to unicast for those that still do.
///
/// A transfer that is cancelled stays as it is; the next activation of the module has its devices told again.
class FileStoreMulticastThread : public FileThreadBase {
  public:
    FileStoreMulticastThread() : FileThreadBase("FileStore", "QueueGap", 30) {}

    /// One transfer: true when a planned file was found. Public for tests, on any one thread.
    bool SendMulticastData();

    /// True while a transfer is in progress, also when its file is removed meanwhile. Any thread.
    bool IsSending() const { return isSending_; }

    /// Files were withdrawn from devices. A transfer that none of its devices waits for any more ends early.
    /// Any thread.
    static void NoteWithdrawal() { isWithdrawalNoted_ = true; }

    // Milliseconds, which end early only when the thread is cancelled; shorter in tests.
    inline static std::uint64_t waitBeforeSending = 5000;
    inline static std::uint64_t waitAfterSending = 15000;  ///< for what is still on its way

  protected:
    bool DoWork() override;

    /// Sends `blocks` of the file (empty: all) from each of these addresses, paced by the multicast window.
    /// 0, 2 when a socket cannot be set up, 5 when the transmission failed or the window closed.
    virtual unsigned int SendPackets(const FileStoreEntry& file, const std::set<KelString>& localAddresses,
                                     const std::set<std::uint32_t>& blocks);

  private:
    bool Send(FileStoreEntry& file);
    void Repeat(filestore::MulticastListeners& listeners);
    void SendOnce(filestore::MulticastListeners& listeners, std::uint32_t pass);
    bool IsWithdrawn(const FileStoreEntry& file);
    bool Close(const FileStoreEntry& file);

    std::atomic<bool> isSending_ = false;
    inline static std::atomic<bool> isWithdrawalNoted_ = false;
    bool isWithdrawn_ = false;                ///< the file of the transfer in progress
    std::optional<FileStoreEntry> unclosed_;  ///< the transfer that has begun and whose end is not recorded
};

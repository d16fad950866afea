#include "filestore/down/multicast_thread.h"

#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/announcement.h"
#include "filestore/down/multicast_planner.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kelcore/agent.h"
#include "kelcore/http/managed_transmission.h"
#include "kelcore/metrics/transfer_counters.h"
#include "kelcore/multicast/sender.h"
#include "kelcore/security.h"

using namespace filestore;

namespace {

// Results of SendPackets.
constexpr unsigned int kSent = 0;
constexpr unsigned int kNoSocket = 2;
constexpr unsigned int kNotSent = 5;

/// What may leave this device at once: more than that overruns the queues of slow switches.
constexpr std::uint64_t kMostBurstBytes = std::uint64_t{64} << 10;

}  // namespace

bool FileStoreMulticastThread::DoWork() {
    bool worked = false;
    while (!CheckCancelled(false) && SendMulticastData())
        worked = true;
    return worked;
}

bool FileStoreMulticastThread::SendMulticastData() {
    FileStore::debugFileStore.Trace("MulticastThread: Enter SendMulticastData\n");
    isSending_ = false;
    if (unclosed_ && !Close(*unclosed_)) return false;
    if (!MulticastPlanner::IsWindowOpen()) {
        FileStore::debugFileStore.Trace("MulticastThread: No Multicast window defined\n");
        return false;
    }
    FileStore::debugFileStore.Trace("MulticastThread: Multicast window defined\n");
    FileRows planned = SelectPlannedMulticast();
    if (planned.empty()) {
        FileStore::debugFileStore.Trace("MulticastThread: No files to transfer\n");
        return false;
    }
    isSending_ = true;
    const bool isClosed = Send(planned.front());
    isSending_ = false;
    return isClosed;
}

bool FileStoreMulticastThread::Send(FileStoreEntry& file) {
    FileStore::debugFileStore.Print("MulticastThread: %S/%S/%S\n", file.FileType, file.FileLabel,
                                    file.FileName);
    file.FileURL = AnnouncedUrl(file);  // the path under which the devices know it
    if (!BeginMulticast(file.FileId, file.MulticastAddress, file.FileURL)) return false;
    FileStore::debugFileStore.Detail("MulticastThread: ToBeStarted parameter set to 2\n");
    unclosed_ = file;
    isWithdrawn_ = false;
    NoteWithdrawal();  // it may have been withdrawn since it was planned
    MulticastListeners listeners(file, [this] { return CheckCancelled(false); });
    Repeat(listeners);
    if (!CheckCancelled(false)) listeners.Finish();
    if (CheckCancelled(false)) {
        unclosed_.reset();
        return true;
    }
    KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Multicast).files.Add();
    return Close(file);
}

void FileStoreMulticastThread::Repeat(MulticastListeners& listeners) {
    for (std::uint32_t pass = 1; pass != 0;) {
        if (!listeners.ReadListeners() || listeners.IsOver() || IsWithdrawn(listeners.File())) return;
        Sleep(waitBeforeSending);
        if (CheckCancelled(false)) return;
        SendOnce(listeners, pass);
        const auto passes = CountMulticastPass(listeners.File().FileId);
        pass = passes && *passes < FileStore::ulMulticastRetry ? *passes + 1 : 0;
        if (!IsWithdrawn(listeners.File())) Sleep(waitAfterSending);
        if (CheckCancelled(false)) return;
        listeners.Examine(pass);
    }
}

void FileStoreMulticastThread::SendOnce(MulticastListeners& listeners, std::uint32_t pass) {
    const MulticastListeners::Need need = listeners.NextNeed();
    if (need == MulticastListeners::Need::Nothing || IsWithdrawn(listeners.File())) return;
    FileStore::debugFileStore.Print("MulticastThread: Sending data retry number %u.\n", pass);
    const unsigned int result = SendPackets(
        listeners.File(), listeners.LocalAddresses(),
        need == MulticastListeners::Need::Blocks ? listeners.NextBlocks() : std::set<std::uint32_t>());
    if (result != kSent)
        FileStore::debugFileStore.Detail("MulticastThread: The pass ended early, error %u\n", result);
}

unsigned int FileStoreMulticastThread::SendPackets(const FileStoreEntry& file,
                                                   const std::set<KelString>& localAddresses,
                                                   const std::set<std::uint32_t>& blocks) {
    HttpManagedTransmission transmission(FileStore::bmTrackUsageMulticast);
    transmission.LimitBursts(kMostBurstBytes);
    if (!transmission.Start()) return kNotSent;
    MulticastSender sender;
    if (!sender.Open({.group = file.MulticastAddress,
                      .port = static_cast<std::uint16_t>(file.MulticastPort),
                      .ttl = FileStore::iMulticastTTL,
                      .key = AgentSecurityGroupKeys().front(),
                      .localAddresses = localAddresses}))
        return kNoSocket;
    HttpFileMessage message;
    message.SetMethod(HttpMethod::Put);
    message.SetResourcePath(file.FileURL);
    message.SetBodyFile(ContentPath(file, Side::Downstream));
    return sender.Send(message, file.MulticastBlockSize, blocks, [&](std::size_t bytes) {
        return transmission.PassAhead(bytes, [this] { return CheckCancelled(false); }) && !IsWithdrawn(file);
    });
}

/// True when no target is left: those that have the file acknowledge it only after a pass.
bool FileStoreMulticastThread::IsWithdrawn(const FileStoreEntry& file) {
    if (isWithdrawalNoted_.exchange(false)) {
        const auto targets = FindTargets(file.FileId);
        isWithdrawn_ = targets && targets->empty();
    }
    return isWithdrawn_;
}

/// The file can be planned again, and its group is free. False when that could not be recorded; it is tried
/// again at the next step.
bool FileStoreMulticastThread::Close(const FileStoreEntry& file) {
    if (!EndMulticast(file.FileId, file.MulticastAddress)) return false;
    {
        const KelLock lock(FileStore::mutexMulticastVector);
        FileStore::DropFreeMulticastAddress(file.MulticastAddress, FileStore::vecMulticastAddressInUse);
    }
    unclosed_.reset();
    FileStore::debugFileStore.Print("MulticastThread: Multicast transfer terminated\n");
    FileStore::WakeWorker(Worker::Notify);
    return true;
}

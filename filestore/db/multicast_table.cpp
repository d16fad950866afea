#include "filestore/db/multicast_table.h"

#include <algorithm>

#include "filestore/db/database.h"
#include "kel/format.h"

namespace filestore {

namespace {

constexpr char kCounts[] =
    "SELECT MulticastAddress, Status, COUNT (Status) FROM MulticastListenAddress GROUP BY MulticastAddress, "
    "Status "
    "ORDER BY MulticastAddress";
constexpr char kDevices[] =
    "SELECT MulticastAddress, DeviceUrl, Status FROM MulticastListenAddress ORDER BY MulticastAddress, "
    "Status";
constexpr char kListeners[] =
    "SELECT LocalAddress, DeviceUrl, TargetId FROM MulticastListenAddress WHERE MulticastAddress = '%Q' AND "
    "Status != '%s'";
// The first condition is that of the index WorkMulticast.
constexpr char kPlanned[] =
    "SELECT %s FROM Files WHERE MulticastTransferToBeStarted <> 0 AND MulticastTransferToBeStarted = %u "
    "LIMIT "
    "1";
constexpr char kInUse[] =
    "SELECT FileId FROM Files WHERE MulticastTransferToBeStarted <> 0 AND MulticastTransferToBeStarted IN "
    "(1, 2) LIMIT 1";

constexpr char kSetRoute[] =
    "UPDATE Files SET MulticastAddress = '%Q', MulticastPort = %u, MulticastBlockSize = %u WHERE FileId = "
    "%lu";
constexpr char kAddListener[] =
    "INSERT INTO MulticastListenAddress (MulticastAddress, LocalAddress, DeviceUrl, TargetId, Status) SELECT "
    "'%Q', '%Q', '%Q', %lu, '%s' WHERE NOT EXISTS (SELECT 1 FROM MulticastListenAddress WHERE "
    "MulticastAddress = '%Q' AND TargetId = %lu)";
constexpr char kSetState[] = "UPDATE Files SET MulticastTransferToBeStarted = %u WHERE FileId = %lu";
constexpr char kSetStateAndUrl[] =
    "UPDATE Files SET MulticastTransferToBeStarted = %u, FileURL = '%Q' WHERE FileId = %lu";
constexpr char kCountPass[] =
    "UPDATE Files SET MulticastRetryNumber = MulticastRetryNumber + 1 WHERE FileId = %lu";
constexpr char kPasses[] = "SELECT MulticastRetryNumber FROM Files WHERE FileId = %lu";
constexpr char kSetGroupStatus[] =
    "UPDATE MulticastListenAddress SET Status = '%s' WHERE MulticastAddress = '%Q'";
constexpr char kSetListenerStatus[] =
    "UPDATE MulticastListenAddress SET Status = '%Q' WHERE MulticastAddress = '%Q' AND TargetId = %lu";
constexpr char kForgetGroup[] = "DELETE FROM MulticastListenAddress WHERE MulticastAddress = '%Q'";
constexpr char kEnd[] =
    "UPDATE Files SET MulticastTransferToBeStarted = %u, MulticastRetryNumber = 0 WHERE FileId = %lu";

constexpr char kStopAll[] =
    "UPDATE Files SET MulticastTransferToBeStarted = 0, MulticastRetryNumber = 0 WHERE "
    "MulticastTransferToBeStarted <> 0 AND MulticastTransferToBeStarted IN (1, 2)";
constexpr char kAllListeners[] = "SELECT TargetId FROM MulticastListenAddress WHERE Status != '%s'";
constexpr char kMakeDue[] = "UPDATE Targets SET LastNotifyTime = 0, IsDue = 1 WHERE TargetId IN (%S)";
constexpr char kForgetAll[] = "DELETE FROM MulticastListenAddress";

DBConnection& Connection() {
    return FileStoreGetDatabase(Side::Downstream).connection;
}

KelMutex& Mutex() {
    return FileStoreGetDatabase(Side::Downstream).mutex;
}

bool Run(const KelString& statement) {
    return Connection().Query(statement) != nullptr;
}

/// Runs the statements in one transaction.
bool Change(std::initializer_list<KelString> statements) {
    const KelLock lock(Mutex());
    DBTransaction transaction(Connection());
    return transaction.IsOpen() && std::all_of(statements.begin(), statements.end(), Run) &&
           transaction.Commit();
}

unsigned int Number(MulticastState state) {
    return static_cast<unsigned int>(state);
}

bool AddListener(const KelString& address, const MulticastListener& listener) {
    return Run(KelFormat(kAddListener, address, listener.localAddress, listener.deviceUrl, listener.targetId,
                         kListenerWaiting, address, listener.targetId));
}

}  // namespace

KelVector<MulticastGroupCount> CountMulticastDevices() {
    const auto result = Connection().Query(kCounts);
    KelVector<MulticastGroupCount> counts(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        RowReader row(*result, i);
        counts[i].address = row.Text();
        counts[i].status = row.Text();
        counts[i].devices = static_cast<std::int32_t>(row.Number());
    }
    return counts;
}

KelVector<MulticastDevice> SelectMulticastDevices() {
    const auto result = Connection().Query(kDevices);
    KelVector<MulticastDevice> devices(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < devices.size(); ++i) {
        RowReader row(*result, i);
        devices[i].address = row.Text();
        devices[i].deviceUrl = row.Text();
        devices[i].status = row.Text();
    }
    return devices;
}

std::optional<KelVector<MulticastListener>> SelectListeners(const KelString& address) {
    const auto result = Connection().Query(KelFormat(kListeners, address, kListenerSucceeded));
    if (!result) return std::nullopt;
    KelVector<MulticastListener> listeners(result->GetRowCount());
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        RowReader row(*result, i);
        listeners[i].localAddress = row.Text();
        listeners[i].deviceUrl = row.Text();
        listeners[i].targetId = row.Unsigned();
    }
    return listeners;
}

FileRows SelectPlannedMulticast() {
    const auto result =
        Connection().Query(KelFormat(kPlanned, FileStoreEntry::kColumns, Number(MulticastState::Planned)));
    FileRows files(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < files.size(); ++i) {
        RowReader row(*result, i);
        files[i].Read(row);
    }
    return files;
}

bool IsMulticastInUse() {
    const auto result = Connection().Query(kInUse);
    return !result || result->GetRowCount() != 0;
}

bool SetMulticastRoute(std::uint64_t fileId, const KelString& address, std::uint32_t port,
                       std::uint32_t blockSize) {
    const KelLock lock(Mutex());
    return Run(KelFormat(kSetRoute, address, port, blockSize, fileId));
}

bool RecordMulticastPlan(const MulticastPlan& plan, const AnnouncementTimes& times) {
    const KelLock lock(Mutex());
    DBTransaction transaction(Connection());
    return transaction.IsOpen() &&
           std::all_of(
               plan.listeners.begin(), plan.listeners.end(),
               [&plan](const MulticastListener& listener) { return AddListener(plan.address, listener); }) &&
           Run(KelFormat(kSetState, Number(MulticastState::Planned), plan.fileId)) &&
           WriteAnnouncements(plan.outcome, times) && transaction.Commit();
}

bool BeginMulticast(std::uint64_t fileId, const KelString& address, const KelString& url) {
    return Change({KelFormat(kSetStateAndUrl, Number(MulticastState::Sending), url, fileId),
                   KelFormat(kSetGroupStatus, kListenerInProgress, address)});
}

std::optional<std::uint32_t> CountMulticastPass(std::uint64_t fileId) {
    const KelLock lock(Mutex());
    if (!Run(KelFormat(kCountPass, fileId))) return std::nullopt;
    const auto result = Connection().Query(KelFormat(kPasses, fileId));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return RowReader(*result, 0).Unsigned32();
}

bool SetListenerStatus(const KelString& address, std::uint64_t targetId, const KelString& status) {
    const KelLock lock(Mutex());
    return Run(KelFormat(kSetListenerStatus, status, address, targetId));
}

bool EndMulticast(std::uint64_t fileId, const KelString& address) {
    return Change({KelFormat(kForgetGroup, address), KelFormat(kEnd, Number(MulticastState::None), fileId)});
}

bool ForgetAllListeners() {
    return Change({kForgetAll});
}

bool ResetAllMulticast() {
    const KelLock lock(Mutex());
    IdList waiting;
    const auto result = Connection().Query(KelFormat(kAllListeners, kListenerSucceeded));
    for (std::size_t i = 0; result && i < result->GetRowCount(); ++i)
        waiting.Add(RowReader(*result, i).Unsigned());
    return (waiting.IsEmpty() || Run(KelFormat(kMakeDue, waiting.Text()))) && Change({kStopAll, kForgetAll});
}

}  // namespace filestore

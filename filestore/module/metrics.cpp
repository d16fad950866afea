#include "filestore/module/metrics.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>

#include "filestore/db/targets_table.h"
#include "filestore/exchange/reason_of_file.h"
#include "filestore/module/action_gate.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/state/waiting_reasons.h"
#include "filestore/state/worker_loop.h"
#include "kel/directory.h"
#include "kelcore/file_status_name.h"

using namespace filestore;

namespace {

using Kind = KelMetric::Kind;

constexpr KelMetric kFiles(Kind::Gauge, "kel_store_files", "Files in the store, by status.");
constexpr KelMetric kBytes(
    Kind::Gauge, "kel_store_bytes",
    "Sizes of the files in the store, by status; not all of their content is here yet.");
constexpr KelMetric kWaiting(Kind::Gauge, "kel_store_waiting_files",
                             "Files that wait, by status and by what they wait for.");
constexpr KelMetric kOldest(Kind::Gauge, "kel_store_oldest_waiting_seconds",
                            "Age of the file that has waited longest, 0 when none waits.");
constexpr KelMetric kTargets(Kind::Gauge, "kel_store_waiting_targets",
                             "Files that wait for a device of the next level or for this device, one for "
                             "each file and device.");
constexpr KelMetric kOldestTarget(Kind::Gauge, "kel_store_oldest_target_seconds",
                                  "Age of the target that has waited longest, 0 when none waits.");
constexpr KelMetric kUnreached(Kind::Gauge, "kel_store_unreached_devices",
                               "Devices of the next level to which the last announcement has failed.");
constexpr KelMetric kTransfers(Kind::Gauge, "kel_store_transfers",
                               "Transfers with the parent or a neighbour that this device makes now.");
constexpr KelMetric kSteps(Kind::Summary, "kel_store_step_seconds", "Time of the work steps of the threads.");
constexpr KelMetric kFree(Kind::Gauge, "kel_store_free_bytes",
                          "Bytes that are free on the file system of the store.");
constexpr KelMetric kReserve(Kind::Gauge, "kel_store_reserve_bytes",
                             "Bytes that the store leaves free (FreeSpaceReserve).");
constexpr KelMetric kQuota(Kind::Gauge, "kel_store_quota_bytes",
                           "Bytes that the store may take (StoreQuota), 0 when that is not limited.");
constexpr KelMetric kOpen(Kind::Gauge, "kel_window_open",
                          "1 while files may move, 0 while the transfer window is closed.");
constexpr KelMetric kRate(Kind::Gauge, "kel_window_rate_bytes_per_second",
                          "Rate of the transfer window; none without a window, and where it is relative.");
constexpr KelMetric kShare(Kind::Gauge, "kel_window_share_ratio",
                           "Part of the bandwidth to the parent that a relative transfer window allows.");

/// In the order of the enumeration Worker.
constexpr std::array kThreads = {"cleanup", "push", "pull", "notify", "callback", "handle", "multicast"};
constexpr double kMegabyte = 1024 * 1024;

const char* NameOf(Side side) {
    return side == Side::Upstream ? "up" : "down";
}

double AgeOf(std::int64_t since, std::int64_t now) {
    return since == 0 ? 0 : static_cast<double>(std::max<std::int64_t>(now - since, 0));
}

void CollectFiles(Side side, const Circumstances& at, KelMetricsPage& page) {
    const KelVector<StatusCount> counts = CountFiles(side);
    for (const StatusCount& counted : counts) {
        const KelString status = FileStatusName(counted.status);
        page.Add(kFiles, {{"direction", NameOf(side)}, {"status", status}},
                 static_cast<double>(counted.count));
        page.Add(kBytes, {{"direction", NameOf(side)}, {"status", status}},
                 static_cast<double>(counted.bytes));
    }
    double oldest = 0;
    for (const WaitingCount& waiting : CountWaiting(side, counts, at)) {
        page.Add(kWaiting,
                 {{"direction", NameOf(side)},
                  {"status", FileStatusName(waiting.status)},
                  {"reason", NameOf(waiting.code)}},
                 static_cast<double>(waiting.files));
        oldest = std::max(oldest, AgeOf(waiting.since, at.now));
    }
    page.Add(kOldest, {{"direction", NameOf(side)}}, oldest);
    page.Add(kTransfers, {{"direction", NameOf(side)}}, static_cast<double>(Reasons().CountTransfers(side)));
}

void CollectTargets(const Circumstances& at, KelMetricsPage& page) {
    page.Add(kTargets, static_cast<double>(CountTargets()));
    page.Add(kOldestTarget, AgeOf(OldestTargetTime(), at.now));
    std::map<Waiting, std::int64_t> devices = {{Waiting::PeerUnreachable, 0}, {Waiting::PeerRefused, 0}};
    for (const auto& [key, count] : Reasons().CountDevices())
        devices[key.second] += count;
    for (const auto& [code, count] : devices)
        page.Add(kUnreached, {{"reason", NameOf(code)}}, static_cast<double>(count));
}

void CollectThreads(KelMetricsPage& page) {
    const auto workers = FileStore::Workers();
    for (std::size_t i = 0; i < kThreads.size() && i < workers.size(); ++i)
        page.Add(kSteps, {{"thread", kThreads[i]}}, workers[i]->Steps());
}

void CollectSpace(KelMetricsPage& page) {
    std::uint64_t free = 0;
    if (DiskFree(FileStore::strStorageLocationToUse, free) == 0) page.Add(kFree, static_cast<double>(free));
    page.Add(kReserve, FileStore::ulFreeSpaceReserve * kMegabyte);
    page.Add(kQuota, FileStore::ulStoreQuota * kMegabyte);
}

void CollectWindow(const char* direction, FileStoreBandwidthManager& window, KelMetricsPage& page) {
    page.Add(kOpen, {{"direction", direction}}, window.TransfersAreDisabled() ? 0 : 1);
    const auto allowed = window.GetAllowance();
    if (!allowed) return;
    if (allowed->isShare)
        page.Add(kShare, {{"direction", direction}}, allowed->share);
    else
        page.Add(kRate, {{"direction", direction}}, allowed->bitsPerSecond / 8);
}

}  // namespace

void FileStoreCollectMetrics(KelMetricsPage& page) {
    const FileStoreActionGate::Pass pass(FileStoreGetActionGate());
    if (!pass.IsGranted()) return;
    const Circumstances at = Circumstances::Now();
    for (const Side side : {Side::Downstream, Side::Upstream})
        CollectFiles(side, at, page);
    CollectTargets(at, page);
    WaitingReasons::CollectFailures(page);
    CollectThreads(page);
    CollectSpace(page);
    CollectWindow("up", FileStore::bmTrackUsageUp, page);
    CollectWindow("down", FileStore::bmTrackUsageDown, page);
    CollectWindow("multicast", FileStore::bmTrackUsageMulticast, page);
}

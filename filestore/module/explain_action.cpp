#include <algorithm>
#include <atomic>
#include <ctime>

#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/down/explain.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/exchange/reason_of_file.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "kel/directory.h"
#include "kel/format.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

/// Targets in one answer.
constexpr std::size_t kMostTargets = 2000;
/// Each may keep many threads busy for a while.
constexpr int kMostAtOnce = 4;

std::atomic<int> running = 0;

unsigned int Fail(KelContainer& arguments, unsigned int code, const KelString& message) {
    arguments.Clear();
    arguments.SetString("Message", message);
    return code;
}

/// The file that the arguments name by its FileId or its key; of several upstream files with one key the one
/// that waits. 0 when it is unknown.
std::uint64_t NamedFile(Side side, const KelContainer& arguments) {
    if (arguments.Has("FileId")) return static_cast<std::uint64_t>(arguments.GetInt64("FileId"));
    const FileKey key = FileKey::Read(arguments);
    if (side == Side::Downstream) return FindFileInDatabase(side, key);
    const Circumstances at = Circumstances::Now();
    std::uint64_t found = 0;
    for (const FileStoreEntry& file : SelectUpstreamFiles(key).value_or(FileRows()))
        if (found == 0 || ReasonOfFile(file, side, at)) found = file.FileId;
    return found;
}

ExplainLimits ReadLimits(const KelContainer& arguments) {
    ExplainLimits limits;
    limits.seconds = std::clamp(arguments.GetInt32("Seconds", limits.seconds), 0, limits.seconds);
    limits.devices = std::clamp(arguments.GetInt32("Devices", limits.devices), 0, limits.devices);
    return limits;
}

unsigned int Explain(KelContainer& arguments) {
    const Side side = arguments.GetBool(kValueUpstream) ? Side::Upstream : Side::Downstream;
    if (!arguments.Has("FileId") && !CheckFileKey(FileKey::Read(arguments), true))
        return Fail(arguments, kKelErrorBadInput, "The file key is unusable");
    ExplainLimits limits = ReadLimits(arguments);
    KelContainer tree = arguments.GetContainer(kValueDevicePath);
    // The tree names devices that are called with the credentials of this tree.
    if (!Includes(CallOriginOf(arguments).callers,
                  KelCallers::Local | KelCallers::Parent | KelCallers::Operator)) {
        limits.devices = 0;
        tree.Clear();
    }
    if (!tree.IsEmpty() && !FileStore::CheckDevicePath(tree))
        return Fail(arguments, kKelErrorBadInput,
                    KelFormat("another device than %S answers at this address", tree.GetName(0)));
    const KelString guid = arguments.GetString("GUID");
    if (!guid.empty() && !tree.IsEmpty()) tree = PartOfTree(tree, guid);
    Explanation explanation = ExplainFile(side, NamedFile(side, arguments), tree, limits);
    if (!guid.empty())
        std::erase_if(explanation.targets,
                      [&guid](const KelContainer& target) { return target.GetString("GUID") != guid; });
    arguments = std::move(explanation.own);
    const std::size_t listed = std::min(explanation.targets.size(), kMostTargets);
    for (std::size_t i = 0; i < listed; ++i)
        arguments.SetContainer("Values", std::move(explanation.targets[i]), static_cast<std::uint32_t>(i));
    arguments.SetInt32("LeftOut", static_cast<std::int32_t>(explanation.targets.size() - listed));
    return kKelOk;
}

/// Writes the span of a closed window; nothing while it is open.
void WriteWindow(const char* name, const std::optional<FileStoreBandwidthManager::ClosedSpan>& closed,
                 KelContainer& values) {
    if (!closed) return;
    KelContainer span;
    span.SetInt64("Since", closed->since);
    span.SetInt64("Until", closed->until);
    values.SetContainer(name, std::move(span));
}

/// Writes what a relative rate is a share of, once it was needed.
void WriteBandwidth(FileStoreBandwidthManager& manager, KelContainer& values) {
    HttpPeerBandwidth::Values bandwidth;
    if (!manager.IsPercentage() && !manager.IsPerThousand()) return;
    if (!manager.peerBandwidth.GetLatest(bandwidth)) return;
    values.SetInt64("Bandwidth", static_cast<std::int64_t>(bandwidth.bitsPerSecond));
    values.SetBool("BandwidthMeasured", bandwidth.isMeasured);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreGetWaiting(KelContainer* arguments) {
    const std::int64_t now = std::time(nullptr);
    KelContainer values;
    WriteWindow("WindowUp", bmTrackUsageUp.GetClosedSpan(now), values);
    WriteWindow("WindowDown", bmTrackUsageDown.GetClosedSpan(now), values);
    WriteBandwidth(bmTrackUsageUp, values);
    std::uint64_t free = 0;
    if (DiskFree(strStorageLocationToUse, free) == 0)
        values.SetInt64("DiskFree", static_cast<std::int64_t>(free));
    if (const auto shortage = Reasons().GetSpaceShortage(); shortage.files != 0) {
        KelContainer full;
        full.SetInt64("WaitingFiles", shortage.files);
        full.SetInt64("Since", shortage.since);
        full.SetInt64("Needed", static_cast<std::int64_t>(shortage.needed));
        values.SetContainer("DiskFull", std::move(full));
    }
    values.SetInt64("WaitingTargets", CountTargets());
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreExplainFile(KelContainer* arguments) {
    const bool hasRoom = ++running <= kMostAtOnce;
    const unsigned int result =
        hasRoom ? Explain(*arguments)
                : Fail(*arguments, kKelErrorNotAvailable, "other questions are being answered; ask again");
    --running;
    return result;
}

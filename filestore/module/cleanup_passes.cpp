#include "filestore/module/cleanup_passes.h"

#include <optional>

#include "filestore/state/file_store.h"
#include "kelcore/callback_db.h"

namespace filestore {

namespace {

constexpr unsigned int kBitsOfMegabyte = 20;

std::uint32_t Role() {
    return static_cast<std::uint32_t>(FileStore::eKeepCopyMask.load());
}

std::int64_t Outdated(std::int64_t now) {
    return now - static_cast<std::int64_t>(FileStore::ulTimeToLive);
}

}  // namespace

void DeleteFiles(Side side, std::int64_t now, const PassHost& host) {
    const bool isUpstream = side == Side::Upstream;
    FileStore::debugFileStore.Trace("DeleteThread: Looking for %s files to delete\n", SideName(side));
    const KeptFiles kept = {Role(), std::uint64_t{FileStore::uKeepCopyPackageMaxSize} << kBitsOfMegabyte};
    std::optional<std::int64_t> deliveredBefore, sentBefore;
    if (FileStore::fRelayEnabled) deliveredBefore = Outdated(now);  // others may still ask for it
    if (FileStore::ulKeepSentFiles != 0)
        sentBefore = now - static_cast<std::int64_t>(FileStore::ulKeepSentFiles);
    RunPass({.rule = RemovalRule::Delivered(side, kept, deliveredBefore, sentBefore),
             .text = isUpstream ? "Deleting upstream file:" : "Deleting downstream file:"},
            host);
}

void KillFiles(Side side, std::int64_t now, const PassHost& host) {
    const bool isUpstream = side == Side::Upstream;
    FileStore::debugFileStore.Trace("DeleteThread: Looking for out-of-date %s files to kill\n",
                                    SideName(side));
    RunPass({.rule = RemovalRule::Outdated(side, {Role()}, Outdated(now), HasConsumers()),
             .text = isUpstream ? "Killing upstream file:" : "Killing downstream file:",
             .isNotable = true,
             .hasTargets = !isUpstream,
             .mayHaveArrived = true},
            host);
}

void KillTargets(std::int64_t now, const PassHost& host) {
    FileStore::debugFileStore.Trace("DeleteThread: Looking for out-of-date targets to kill\n");
    RemoveOldTargets(Outdated(now), host);
}

bool HasConsumers() {
    return CallbackDbGetActionCount("FileStoreCallbackReceivedFile") != 0;
}

}  // namespace filestore

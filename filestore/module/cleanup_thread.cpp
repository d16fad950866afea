#include "filestore/module/cleanup_thread.h"

#include <algorithm>
#include <ctime>

#include "filestore/module/cleanup_passes.h"
#include "filestore/packages/unused_packages.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/removal.h"
#include "filestore/up/lost_store.h"

using namespace filestore;

bool FileStoreDeleteThread::DoWork() {
    RecordUnknownFiles();
    AskParent();
    RunPasses();
    externalFiles_.Run();
    orphans_.RunWhenDue(std::time(nullptr), [this] { return CheckCancelled(false); });
    return false;
}

/// The parent may have lost what was sent to it.
void FileStoreDeleteThread::AskParent() {
    const std::int64_t now = std::time(nullptr);
    const std::int64_t age = now - parentAsked_;
    if (age >= 0 && age < static_cast<std::int64_t>(FileStore::ulPushTimeout)) return;
    Parent parent;
    if (ReadParent(parent) && parent.IsKnown() && OfferAgainAfterLoss(parent.CallUrl(), parent.guid))
        parentAsked_ = now;
}

void FileStoreDeleteThread::RunPasses() {
    using std::chrono::milliseconds;
    const PassHost host = {
        [this] { return CheckCancelled(false); },
        [this](std::chrono::steady_clock::duration held) {
            const auto rest = std::chrono::duration_cast<milliseconds>(held);
            Sleep(static_cast<std::uint64_t>(std::max<milliseconds::rep>(rest.count(), 1)));
        }};
    const std::int64_t now = std::time(nullptr);
    for (const Side side : {Side::Downstream, Side::Upstream})
        RemoveLeftContent(side, host.isCancelled);
    DeleteFiles(Side::Downstream, now, host);
    KillFiles(Side::Downstream, now, host);
    KillPackages(now, HasConsumers(), host);
    KillTargets(now, host);
    DeleteFiles(Side::Upstream, now, host);
    KillFiles(Side::Upstream, now, host);
}

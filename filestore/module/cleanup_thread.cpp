#include "filestore/module/cleanup_thread.h"

#include <ctime>

#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/up/lost_store.h"

using namespace filestore;

bool FileStoreDeleteThread::DoWork() {
    RecordUnknownFiles();
    orphans_.RunWhenDue(std::time(nullptr), [this] { return CheckCancelled(false); });
    const std::int64_t now = std::time(nullptr);
    const std::int64_t age = now - parentAsked_;
    if (age >= 0 && age < static_cast<std::int64_t>(FileStore::ulPushTimeout)) return false;
    Parent parent;
    if (ReadParent(parent) && parent.IsKnown() && OfferAgainAfterLoss(parent.CallUrl(), parent.guid))
        parentAsked_ = now;
    return false;
}

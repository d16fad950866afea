#include "filestore/db/file_key.h"

#include <algorithm>

#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"

namespace filestore {

namespace {

constexpr const char* kUrlRoot = "/FileStore/";

}  // namespace

const char* SideName(Side side) {
    return side == Side::Upstream ? "upstream" : "downstream";
}

KelString StoredFolder(Side side, const FileKey& key) {
    return KelFormat("%s/%S/%S/%S", SideName(side), key.type, key.label, key.checksum);
}

KelString StoredPath(Side side, const FileKey& key) {
    return KelFormat("%s/%S/%S/%S/%S", SideName(side), key.type, key.label, key.checksum, key.name);
}

bool ParseStoredPath(const KelString& path, Side& side, FileKey& key) {
    const KelVector<KelString> parts = SplitText(path, '/');
    if (parts.size() != 5 || !std::all_of(parts.begin(), parts.end(),
                                          [](const KelString& part) { return IsSafePathElement(part); }))
        return false;
    if (parts[0] != SideName(Side::Upstream) && parts[0] != SideName(Side::Downstream)) return false;
    side = parts[0] == SideName(Side::Upstream) ? Side::Upstream : Side::Downstream;
    key = {parts[1], parts[2], parts[4], parts[3]};
    return true;
}

KelString StoredUrl(Side side, const FileKey& key) {
    return kUrlRoot + StoredPath(side, key);
}

bool ParseStoredUrl(const KelString& url, Side& side, FileKey& key) {
    const KelString root = kUrlRoot;
    return url.starts_with(root) && ParseStoredPath(url.substr(root.size()), side, key);
}

}  // namespace filestore

#include "filestore/db/file_key.h"

#include <algorithm>

#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

constexpr const char* kUrlRoot = "/FileStore/";
/// Begins the names of the folders that keep identical files of several devices apart.
constexpr const char* kSourcePrefix = "from-";

}  // namespace

const char* SideName(Side side) {
    return side == Side::Upstream ? "upstream" : "downstream";
}

KelString StoredFolder(Side side, const FileKey& key, const KelString& source) {
    const KelString folder = KelFormat("%s/%S/%S/%S", SideName(side), key.type, key.label, key.checksum);
    return source.empty() ? folder : folder + "/" + source;
}

KelString StoredPath(Side side, const FileKey& key, const KelString& source) {
    return StoredFolder(side, key, source) + "/" + key.name;
}

KelString SourceFolder(const KelString& deviceUrl) {
    const KelString guid(GuidOfDevice(deviceUrl));
    // Anything else than a GUID may be unfit for a path.
    return KelString(kSourcePrefix) + (IsGuid(guid) ? guid : TextMd5(deviceUrl));
}

std::optional<StoredPlace> ParseStoredPath(const KelString& path) {
    KelVector<KelString> parts = SplitText(path, '/');
    StoredPlace place;
    if (parts.size() == 6 && parts[0] == SideName(Side::Upstream) && parts[4].starts_with(kSourcePrefix)) {
        place.source = parts[4];
        parts.erase(parts.begin() + 4);
    }
    if (parts.size() != 5 || (!place.source.empty() && !IsSafePathElement(place.source)) ||
        !std::all_of(parts.begin(), parts.end(),
                     [](const KelString& part) { return IsSafePathElement(part); }))
        return std::nullopt;
    if (parts[0] != SideName(Side::Upstream) && parts[0] != SideName(Side::Downstream)) return std::nullopt;
    place.side = parts[0] == SideName(Side::Upstream) ? Side::Upstream : Side::Downstream;
    place.key = {parts[1], parts[2], parts[4], parts[3]};
    return place;
}

KelString StoredUrl(Side side, const FileKey& key, const KelString& source) {
    return kUrlRoot + StoredPath(side, key, source);
}

std::optional<StoredPlace> ParseStoredUrl(const KelString& url) {
    const KelString root = kUrlRoot;
    return url.starts_with(root) ? ParseStoredPath(url.substr(root.size())) : std::nullopt;
}

}  // namespace filestore

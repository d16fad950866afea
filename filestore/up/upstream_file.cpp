#include "filestore/up/upstream_file.h"

#include <algorithm>

#include "filestore/db/files_selection.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

/// A device is its GUID: its address may change.
bool IsSameDevice(const KelString& left, const KelString& right) {
    const auto guid = GuidOfDevice(left);
    return left == right || (!guid.empty() && guid == GuidOfDevice(right));
}

/// A row without a source was made by this device while it did not know its GUID.
bool IsOfDevice(const FileStoreEntry& row, const KelString& device, const KelString& ownUrl) {
    return IsSameDevice(row.SourceDevice, device) ||
           (row.SourceDevice.empty() && row.FirstRelay.empty() && IsSameDevice(device, ownUrl));
}

}  // namespace

KelString UpstreamFile::Path() const {
    return FileStore::strStorageLocationToUse + StoredPath(Side::Upstream, key, source);
}

KelString UpstreamFile::Folder() const {
    return FileStore::strStorageLocationToUse + StoredFolder(Side::Upstream, key, source);
}

KelString UpstreamFile::Url() const {
    return StoredUrl(Side::Upstream, key, source);
}

bool UpstreamFile::HasContent() const {
    return row && FileExists(ContentPath(*row, Side::Upstream));
}

std::optional<UpstreamFile> FindUpstreamFile(const FileKey& key, const KelString& sourceDevice) {
    const auto rows = SelectUpstreamFiles(key);
    if (!rows) return std::nullopt;
    UpstreamFile file{std::nullopt, {}, key};
    const KelString ownUrl = rows->empty() ? KelString() : OurDeviceUrl();
    for (const FileStoreEntry& row : *rows)
        if (IsOfDevice(row, sourceDevice, ownUrl)) {
            file.row = row;
            file.source = StoredSourceOf(row);
            return file;
        }
    if (!rows->empty()) file.source = SourceFolder(sourceDevice);
    return file;
}

std::optional<UpstreamFile> FindUpstreamFileOfUrl(const KelString& url) {
    const auto place = ParseStoredUrl(url);
    if (!place || place->side != Side::Upstream) return UpstreamFile();
    const auto rows = SelectUpstreamFiles(place->key);
    if (!rows) return std::nullopt;
    UpstreamFile file{std::nullopt, place->source, place->key};
    const auto taken = std::find_if(rows->begin(), rows->end(), [&place](const FileStoreEntry& row) {
        return !row.ExternalFile && StoredSourceOf(row) == place->source;
    });
    if (taken != rows->end()) file.row = *taken;
    return file;
}

}  // namespace filestore

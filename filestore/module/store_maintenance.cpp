#include "filestore/db/files_selection.h"
#include "filestore/db/information_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/db/connection.h"

using namespace filestore;

namespace {

/// `deviceUrl` ("host:port/…") with its port replaced; unchanged when it has no such form.
KelString WithPort(const KelString& deviceUrl, const KelString& port) {
    const std::size_t colon = deviceUrl.find(':');
    const std::size_t slash = deviceUrl.find('/');
    if (colon == KelString::npos || slash == KelString::npos || slash < colon) return deviceUrl;
    return deviceUrl.substr(0, colon + 1) + port + deviceUrl.substr(slash);
}

/// The same in a stored target tree: its names are path names of devices, on every level.
KelContainer WithPort(const KelContainer& tree, const KelString& port) {
    KelContainer result;
    for (std::size_t i = 0; i < tree.GetNameCount(); ++i) {
        const KelString& name = tree.GetName(i);
        for (std::uint32_t index = 0; index < tree.Count(name); ++index)
            if (tree.IsContainer(name, index))
                result.SetContainer(WithPort(name, port), WithPort(tree.GetContainer(name, index), port),
                                    index);
    }
    return result;
}

/// A stored device path: the XML of a target tree, or a plain path whose elements may be device URLs.
KelString DevicePathWithPort(const KelString& devicePath, const KelString& port) {
    KelContainer tree;
    if (devicePath.empty()) return devicePath;
    if (devicePath.starts_with('<'))
        return tree.LoadFromXML(devicePath) ? WithPort(tree, port).SaveToXML() : devicePath;
    KelString result;
    for (const KelString& element : SplitText(devicePath, '/')) {
        const std::size_t colon = element.find(':');
        result += "/" + (colon == KelString::npos ? element : element.substr(0, colon + 1) + port);
    }
    return result.substr(1);
}

void UpdateSourceDevices(const KelString& port) {
    for (const FileSource& source : SelectSourceDevices()) {
        const KelString changed = WithPort(source.sourceDevice, port);
        if (changed != source.sourceDevice) SetSourceDevice(Side::Downstream, source.fileId, changed);
    }
}

void UpdateTargets(const KelString& port) {
    for (FileStoreTarget target : SelectAllTargets()) {
        const KelString device = WithPort(target.DeviceGUID, port);
        const KelString path = DevicePathWithPort(target.DevicePath, port);
        if (device == target.DeviceGUID && path == target.DevicePath) continue;
        target.DeviceGUID = device;
        target.DevicePath = path;
        SetTargetDevice(target);
    }
}

/// Puts a package or script whose content at `path` is not what it should be back to missing.
void DropCorruptedFile(const FileStoreEntry& file, const KelString& path) {
    if (FileExists(path)) {
        if (file.ExternalFile) {
            FileStore::debugFileStore.Warning("File '%S' is held by the Master and is corrupted.\n", path);
        } else {
            FileStore::debugFileStore.Warning("File '%S' is corrupted and will be removed.\n", path);
            FileDelete(path);
        }
    }
    SetMissing(file.FileId);
}

}  // namespace

void FileStore::UpdateHttpPort() {
    const KelLock lock(mutexDownstream);
    if (!ReadInformation(kPortUpdateField)) return;
    const KelString port = KelFormat("%u", static_cast<std::uint32_t>(AskHttpPort()));
    DBTransaction transaction(*pDbConnectionDownstream);
    UpdateSourceDevices(port);
    UpdateTargets(port);
    DeleteInformation(kPortUpdateField);
    transaction.Commit();
}

void FileStore::UpdateScriptAndPackageStatus(unsigned long fileId) {
    const KelLock lock(mutexDownstream);
    for (const FileStoreEntry& file : SelectHeldPackages(fileId)) {
        const KelString path = ContentPath(file, Side::Downstream);
        if (FileGetSize64(path) != file.FileSize) DropCorruptedFile(file, path);
    }
}

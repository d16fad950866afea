#include <utility>

#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/information_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/db/connection.h"

using namespace filestore;

namespace {

/// Writes another port into the names of this device; those of other devices stay.
class PortChange {
  public:
    PortChange(KelString guid, KelString port) : guid_(std::move(guid)), port_(std::move(port)) {}

    /// A device URL or path name ("host:port/GUID…").
    KelString Apply(const KelString& device) const {
        const std::size_t colon = device.find(':');
        const std::size_t slash = device.find('/');
        if (colon == KelString::npos || slash == KelString::npos || slash < colon ||
            StringTokeniser(device, '/').GetToken(1) != guid_)
            return device;
        return device.substr(0, colon + 1) + port_ + device.substr(slash);
    }

    /// A stored device path: the XML of a target tree, or a plain path that holds device URLs.
    KelString ApplyToPath(const KelString& devicePath) const {
        KelContainer tree;
        if (devicePath.starts_with('<'))
            return tree.LoadFromXML(devicePath) ? ApplyToTree(tree).SaveToXML() : devicePath;
        KelVector<KelString> elements = SplitText(devicePath, '/');
        KelString result;
        for (std::size_t i = 0; i < elements.size(); ++i) {
            const std::size_t colon = elements[i].find(':');
            const bool isOurs = i + 1 < elements.size() && elements[i + 1] == guid_;
            if (isOurs && colon != KelString::npos) elements[i] = elements[i].substr(0, colon + 1) + port_;
            result += (i == 0 ? "" : "/") + elements[i];
        }
        return result;
    }

  private:
    /// The names in a tree are path names of devices, on every level.
    KelContainer ApplyToTree(const KelContainer& tree) const {
        KelContainer result;
        for (std::size_t i = 0; i < tree.GetNameCount(); ++i) {
            const KelString& name = tree.GetName(i);
            for (std::uint32_t index = 0; index < tree.Count(name); ++index)
                if (tree.IsContainer(name, index))
                    result.SetContainer(Apply(name), ApplyToTree(tree.GetContainer(name, index)), index);
        }
        return result;
    }

    const KelString guid_;
    const KelString port_;
};

bool UpdateSourceDevices(const PortChange& change) {
    for (const FileSource& source : SelectSourceDevices()) {
        const KelString changed = change.Apply(source.sourceDevice);
        if (changed != source.sourceDevice && !SetSourceDevice(Side::Downstream, source.fileId, changed))
            return false;
    }
    return true;
}

bool UpdateTargets(const PortChange& change) {
    for (FileStoreTarget target : SelectAllTargets()) {
        const KelString device = change.Apply(target.DeviceGUID);
        const KelString path = change.ApplyToPath(target.DevicePath);
        if (device == target.DeviceGUID && path == target.DevicePath) continue;
        target.DeviceGUID = device;
        target.DevicePath = path;
        if (!SetTargetDevice(target)) return false;
    }
    return true;
}

/// Rewrites everything and removes the mark, or changes nothing.
bool RewritePort(const PortChange& change, const KelString& port) {
    const KelLock lock(FileStore::mutexDownstream);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && UpdateSourceDevices(change) && UpdateTargets(change) &&
           WriteInformation(kPortField, port) && DeleteInformation(kPortUpdateField) && transaction.Commit();
}

bool IsSound(const FileStoreEntry& file) {
    return FileGetSize64(ContentPath(file, Side::Downstream)) == file.FileSize;
}

/// Puts a package or script whose content is not what it should be back to missing. The row may have changed
/// while the disk was looked at, and content in use is looked at another time.
void DropCorruptedFile(const FileStoreEntry& file) {
    const KelString path = ContentPath(file, Side::Downstream);
    ContentRemoval removal(Side::Downstream);
    if (!removal.Claim(file)) return;
    {
        const KelLock lock(FileStore::mutexDownstream);
        if (ReadFileStatus(Side::Downstream, file.FileId) != file.FileStatus || IsSound(file) ||
            !SetMissing(file.FileId))
            return;
    }
    if (!FileExists(path)) return;
    if (file.ExternalFile) {
        FileStore::debugFileStore.Warning("File '%S' is held by the Master and is corrupted.\n", path);
        return;
    }
    FileStore::debugFileStore.Warning("File '%S' is corrupted and will be removed.\n", path);
    removal.Confirm(file);
    removal.RemoveContent();
}

}  // namespace

void FileStore::UpdateHttpPort() {
    const std::int32_t number = AskHttpPort();
    const KelString guid = OurGuid();
    if (number <= 0 || guid.empty()) return;  // a change is noticed at the next start
    const KelString port = std::to_string(number);
    const KelString known = ReadInformation(kPortField).value_or("");
    if (!known.empty() && known != port) {
        debugFileStore.Print("The HTTP port is %S now, it was %S\n", port, known);
        WriteInformation(kPortUpdateField, known);
    }
    if (ReadInformation(kPortUpdateField))
        RewritePort(PortChange(guid, port), port);
    else if (known.empty())
        WriteInformation(kPortField, port);
}

void FileStore::UpdateScriptAndPackageStatus(unsigned long fileId) {
    for (const FileStoreEntry& file : SelectHeldPackages(fileId))
        if (!IsSound(file)) DropCorruptedFile(file);
}

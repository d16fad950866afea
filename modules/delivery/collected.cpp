#include "modules/delivery/collected.h"

#include <algorithm>
#include <array>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/device_name.h"
#include "kelcore/file_values.h"

namespace {

/// The types that the console and the file store process themselves.
constexpr std::array kTypesOfOthers = {kIdentityFileType, kReceiptFileType, "FileStorePackedFiles",
                                       "PackageSyncInfo"};

}  // namespace

IniSetting CollectedFiles::Setting() {
    return IniSetting::Text("Delivery", "CollectedFolder", "Collected");
}

void CollectedFiles::Configure(const IniFile& ini, const KelString& dataFolder, const KelString& workFolder) {
    const KelString folder = ReadIniText(ini, Setting());
    root_ = CompletePath(folder.starts_with('/') ? folder : dataFolder + "/" + folder);
    access_ = PlaceAccess::Read(ini);
    workFolder_ = workFolder;
    DirDeleteTempFiles(workFolder);
}

bool CollectedFiles::IsToBeCollected(const KelString& type) {
    return std::none_of(kTypesOfOthers.begin(), kTypesOfOthers.end(),
                        [&](const char* other) { return type == other; });
}

KelString CollectedFiles::DeviceFolder(const KelString& device) {
    const std::string_view guid = GuidOfDevice(device);
    return guid.empty() ? KelString("unknown") : KelString(guid);
}

FilePlace CollectedFiles::PlaceOf(const KelString& device, const FileKey& key) const {
    return {root_, KelFormat("%S/%S/%S/%S", DeviceFolder(device), key.type, key.label, key.name)};
}

KelResult<bool> CollectedFiles::Put(const KelString& device, const ReceivedFile& file) const {
    const FilePlace place = PlaceOf(device, file.key);
    if (HoldsContent(place, file.key.checksum)) return false;
    if (const KelStatus placed = PlaceCopy(file.sourcePath, place, access_, workFolder_); !placed)
        return placed.Error();
    return true;
}

KelResult<bool> CollectedFiles::PutLater(const KelString& device, const ReceivedFile& file) {
    const FilePlace place = PlaceOf(device, file.key);
    if (!waiting_.Has(place) && HoldsContent(place, file.key.checksum)) return false;
    if (const KelStatus added = waiting_.Add(file.sourcePath, place, workFolder_); !added)
        return added.Error();
    return true;
}

KelVector<CollectedFile> CollectedFiles::List() const {
    KelVector<CollectedFile> files;
    for (const KelString& device : DirList(root_)) {
        for (const KelString& type : DirList(root_ + "/" + device)) {
            const KelString typeFolder = root_ + "/" + device + "/" + type;
            for (const KelString& label : DirList(typeFolder)) {
                for (const KelString& name : DirList(typeFolder + "/" + label)) {
                    const KelString path = typeFolder + "/" + label + "/" + name;
                    if (name.starts_with(kTempFilePrefix) || !FileExists(path)) continue;
                    files.push_back({device, {type, label, name, {}}, path, FileGetSize64(path)});
                }
            }
        }
    }
    return files;
}

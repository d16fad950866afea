#include "modules/delivery/inbox.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/relative_name.h"

namespace {

bool IsNotEmpty(const KelString& text) {
    return !text.empty();
}

const IniSetting kFolder = IniSetting::Text("Delivery", "Folder", "Inbox").Checked(IsNotEmpty, "a folder");
// Vital: the files would be delivered to a place where their consumer does not look.
const IniSetting kTypeFolder =
    IniSetting::Text("Folders", "*", "Inbox").Checked(IsNotEmpty, "a folder").Vital();

constexpr std::int64_t kNanoseconds = 1'000'000'000;

/// The relative paths of what lies in the folder of a label, as deep as a name can express, sorted. Links to
/// folders are not followed.
KelVector<KelString> PathsBelow(const KelString& folder) {
    KelVector<KelString> paths;
    KelVector<KelString> waiting = {""};
    while (!waiting.empty()) {
        const KelString below = std::move(waiting.back());
        waiting.pop_back();
        for (const KelString& entry : DirList(folder + "/" + below)) {
            if (entry.starts_with(kTempFilePrefix)) continue;  // a copy in progress
            const KelString path = below + entry;
            if (!IsSafePathElement(NameForPath(path))) continue;
            struct stat status {};
            if (lstat((folder + "/" + path).c_str(), &status) == 0 && S_ISDIR(status.st_mode))
                waiting.push_back(path + "/");
            else
                paths.push_back(path);
        }
    }
    std::ranges::sort(paths);
    return paths;
}

KelString FolderFrom(const KelString& text, const KelString& root) {
    return CompletePath(text.front() == '/' ? text : root + "/" + text);
}

}  // namespace

KelVector<IniSetting> Inbox::IniSettings() {
    return {kFolder, kTypeFolder, PlaceAccess::Setting()};
}

void Inbox::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) {
    for (const KelString& type : ini.GetKeys(kTypeFolder.section))
        if (!IsSafePathElement(type))
            faults.push_back({IniFault::Weight::Vital,
                              KelFormat("\"%S\" in section Folders cannot be a file type", type)});
}

void Inbox::Configure(const IniFile& ini, const KelString& root) {
    access_ = PlaceAccess::Read(ini);
    folder_ = FolderFrom(ReadIniText(ini, kFolder), root);
    types_.clear();
    typeFolders_.clear();
    for (const auto& [type, folder] : ini.GetEntries(kTypeFolder.section)) {
        types_.push_back(type);
        typeFolders_[type] = FolderFrom(folder, root);
    }
}

FilePlace Inbox::PlaceOf(const ReceivedFile& file) const {
    const KelString name = PathInName(file.key.name);
    const KelString below = file.key.label + "/" + name;
    const auto levels = static_cast<std::size_t>(std::ranges::count(name, '/')) + 1;
    const auto own = typeFolders_.find(file.key.type);
    return own != typeFolders_.end() ? FilePlace{own->second, below, levels}
                                     : FilePlace{folder_, file.key.type + "/" + below, levels};
}

bool Inbox::Holds(const ReceivedFile& file) const {
    return HoldsContent(PlaceOf(file), file.key.checksum, file.sha256);
}

KelStatus Inbox::Put(const ReceivedFile& file) const {
    return PlaceCopy(file.sourcePath, PlaceOf(file), access_, {}, file.sha256);
}

KelVector<DeliveredFile> Inbox::List(const WasDelivered& wasDelivered) {
    KelVector<DeliveredFile> files;
    for (const KelString& type : DirList(folder_)) {
        if (!typeFolders_.contains(type)) ListType({folder_, type + "/"}, type, wasDelivered, files);
    }
    for (const KelString& type : types_)
        ListType({typeFolders_.at(type), ""}, type, wasDelivered, files);
    const KelLock lock(mutex_);
    if (known_.size() > files.size())
        std::erase_if(known_, [](const auto& known) { return !FileExists(known.first); });
    return files;
}

void Inbox::ListType(const FilePlace& folder, const KelString& type, const WasDelivered& wasDelivered,
                     KelVector<DeliveredFile>& files) {
    for (const KelString& label : DirList(folder.Whole())) {
        const FilePlace below{folder.root, folder.path + label};
        if (!FileOpenBeneath(below.root, below.path, O_PATH | O_DIRECTORY)) continue;  // no folder, or a link
        for (const KelString& path : PathsBelow(below.Whole())) {
            const FilePlace place{below.root, below.path + "/" + path};
            DeliveredFile file;
            file.key = {type, label, NameForPath(path), {}};
            file.path = place.Whole();
            // What lies deeper may also be what a command has unpacked, which can be large.
            if (path.find('/') != KelString::npos && !wasDelivered(file.path)) continue;
            if (Examine(place, file)) files.push_back(std::move(file));
        }
    }
}

bool Inbox::Examine(const FilePlace& place, DeliveredFile& file) {
    const UniqueFd content = OpenPlaced(place);
    struct stat status {};
    if (!content || fstat(content.Get(), &status) != 0) return false;
    file.size = status.st_size;
    file.time = status.st_mtim.tv_sec;
    const std::int64_t changeTime = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
    {
        const KelLock lock(mutex_);
        const auto known = known_.find(file.path);
        if (known != known_.end() && known->second.size == file.size &&
            known->second.changeTime == changeTime) {
            file.key.checksum = known->second.checksum;
            return true;
        }
    }
    // Two callers may hash the same file at the same time, which costs less than a lock held while reading.
    if (!FileMd5(content.Get(), file.key.checksum)) return false;
    const KelLock lock(mutex_);
    known_[file.path] = {file.size, changeTime, file.key.checksum};
    return true;
}

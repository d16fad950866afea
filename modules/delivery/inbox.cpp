#include "modules/delivery/inbox.h"

#include <sys/stat.h>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"

namespace {

bool IsNotEmpty(const KelString& text) {
    return !text.empty();
}

const IniSetting kFolder = IniSetting::Text("Delivery", "Folder", "Inbox").Checked(IsNotEmpty, "a folder");
// Vital: the files would be delivered to a place where their consumer does not look.
const IniSetting kTypeFolder =
    IniSetting::Text("Folders", "*", "Inbox").Checked(IsNotEmpty, "a folder").Vital();

constexpr std::int64_t kNanoseconds = 1'000'000'000;

KelString FolderFrom(const KelString& text, const KelString& root) {
    return CompletePath(text.front() == '/' ? text : root + "/" + text);
}

}  // namespace

KelVector<IniSetting> Inbox::IniSettings() {
    return {kFolder, kTypeFolder};
}

void Inbox::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) {
    for (const KelString& type : ini.GetKeys(kTypeFolder.section))
        if (!IsSafePathElement(type))
            faults.push_back({IniFault::Weight::Vital,
                              KelFormat("\"%S\" in section Folders cannot be a file type", type)});
}

void Inbox::Configure(const IniFile& ini, const KelString& root) {
    folder_ = FolderFrom(ReadIniText(ini, kFolder), root);
    types_.clear();
    typeFolders_.clear();
    for (const auto& [type, folder] : ini.GetEntries(kTypeFolder.section)) {
        types_.push_back(type);
        typeFolders_[type] = FolderFrom(folder, root);
    }
}

KelString Inbox::PathOf(const ReceivedFile& file) const {
    const auto own = typeFolders_.find(file.key.type);
    const KelString folder = own != typeFolders_.end() ? own->second : folder_ + "/" + file.key.type;
    return KelFormat("%S/%S/%S", folder, file.key.label, file.key.name);
}

bool Inbox::Holds(const ReceivedFile& file) const {
    return HoldsContent(PathOf(file), file.key.checksum);
}

KelStatus Inbox::Put(const ReceivedFile& file) const {
    return PlaceCopy(file.sourcePath, PathOf(file));
}

KelVector<DeliveredFile> Inbox::List() {
    KelVector<DeliveredFile> files;
    for (const KelString& type : DirList(folder_)) {
        if (!typeFolders_.contains(type)) ListType(folder_ + "/" + type, type, files);
    }
    for (const KelString& type : types_)
        ListType(typeFolders_.at(type), type, files);
    const KelLock lock(mutex_);
    if (known_.size() > files.size())
        std::erase_if(known_, [](const auto& known) { return !FileExists(known.first); });
    return files;
}

void Inbox::ListType(const KelString& folder, const KelString& type, KelVector<DeliveredFile>& files) {
    for (const KelString& label : DirList(folder)) {
        for (const KelString& name : DirList(folder + "/" + label)) {
            if (name.starts_with(kTempFilePrefix)) continue;  // a copy in progress
            DeliveredFile file;
            file.key = {type, label, name, {}};
            file.path = KelFormat("%S/%S/%S", folder, label, name);
            if (Examine(file)) files.push_back(std::move(file));
        }
    }
}

bool Inbox::Examine(DeliveredFile& file) {
    struct stat status {};
    if (stat(file.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
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
    if (!FileMd5(file.path, file.key.checksum)) return false;
    const KelLock lock(mutex_);
    known_[file.path] = {file.size, changeTime, file.key.checksum};
    return true;
}

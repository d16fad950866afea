#include "kelcore/left_overs.h"

#include <map>
#include <utility>

#include "kel/file.h"
#include "kel/mutex.h"

namespace {

KelMutex mutexFolders;  ///< held while a module is asked
std::map<KelString, KelLeftOverFolder::Examine> folders KEL_GUARDED_BY(mutexFolders);

}  // namespace

KelLeftOverFolder::KelLeftOverFolder(KelString path, Examine examine) : path_(std::move(path)) {
    const KelLock lock(mutexFolders);
    folders[path_] = std::move(examine);
}

KelLeftOverFolder::~KelLeftOverFolder() {
    const KelLock lock(mutexFolders);
    folders.erase(path_);
}

KelVector<KelString> KelLeftOverFolder::List() {
    const KelLock lock(mutexFolders);
    KelVector<KelString> paths;
    for (const auto& [path, examine] : folders)
        paths.push_back(path);
    return paths;
}

bool KelLeftOverFolder::IsLeftOver(const KelString& folder, const KelString& path, bool removes) {
    const KelLock lock(mutexFolders);
    const auto found = folders.find(folder);
    if (found == folders.end()) return false;
    if (found->second) return found->second(path, removes);
    if (removes) FileDelete(path);
    return true;
}

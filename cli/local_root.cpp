#include "cli/local_root.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "kel/directory.h"
#include "kel/path.h"

namespace {

constexpr const char* kInstalledRoot = "/var/lib/kel";

}  // namespace

KelString DefaultRoot() {
    if (const char* named = std::getenv("KEL_ROOT"); named != nullptr && *named != 0) return named;
    return DirExists(kInstalledRoot) ? kInstalledRoot : "";
}

void GiveToOwner(const KelString& root) {
    struct stat owner {};
    if (geteuid() != 0 || stat(root.c_str(), &owner) != 0 || owner.st_uid == 0) return;
    std::error_code failure;
    auto entry = std::filesystem::recursive_directory_iterator(root, failure);
    for (; !failure && entry != std::filesystem::recursive_directory_iterator(); entry.increment(failure)) {
        struct stat status {};
        const char* const path = entry->path().c_str();
        if (lstat(path, &status) == 0 && status.st_uid == 0) {
            // What stays with root is reported by the agent when it cannot use it.
            [[maybe_unused]] const int result = lchown(path, owner.st_uid, owner.st_gid);
        }
    }
}

KelResult<UniqueFd> LockStoppedRoot(const KelString& root) {
    const KelString path = root + "/data/agent.lock";
    PathCreate(root + "/data");
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return SystemError("The lock of the agent cannot be opened:", path);
    struct stat owner {};
    if (geteuid() == 0 && stat(root.c_str(), &owner) == 0 &&
        fchown(file.Get(), owner.st_uid, owner.st_gid) != 0)
        return SystemError("The lock of the agent cannot be given to its user:", path);
    if (flock(file.Get(), LOCK_EX | LOCK_NB) == 0) return file;
    if (errno != EWOULDBLOCK) return SystemError("The lock of the agent cannot be taken:", path);
    return UniqueFd();
}

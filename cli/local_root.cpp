#include "cli/local_root.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"

namespace {

constexpr const char* kInstalledRoot = "/var/lib/kel";
constexpr std::size_t kMostAtOnce = std::size_t{64} << 20;

/// The name with which the unit of an agent is enabled; empty when there is none for its root folder.
KelString InstanceOf(const KelString& root) {
    const KelString prefix = KelString(kInstalledRoot) + "-";
    const KelString name = root.starts_with(prefix) ? root.substr(prefix.size()) : "";
    // Other characters have to be escaped in the name of a unit, and then are others in the path that it
    // takes.
    constexpr const char* kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789:_.-";
    return name.find_first_not_of(kPlain) == KelString::npos ? name : "";
}

/// The unit of systemd for a root folder, where systemd runs and the package is installed; else empty.
KelString UnitOf(const KelString& root, const KelString& system) {
    const KelString folder = CompletePath(root + "/.");
    const bool isRun = DirExists(system + "/run/systemd/system");
    const auto hasUnit = [&](const char* unit) {
        return isRun && FileExists(system + "/usr/lib/systemd/system/" + unit);
    };
    if (folder == kInstalledRoot && hasUnit("kelagent.service")) return "kelagent";
    const KelString instance = InstanceOf(folder);
    return !instance.empty() && hasUnit("kelagent@.service") ? "kelagent@" + instance : KelString();
}

}  // namespace

KelString DefaultRoot() {
    if (const char* named = std::getenv("KEL_ROOT"); named != nullptr && *named != 0) return named;
    return DirExists(kInstalledRoot) ? kInstalledRoot : "";
}

KelString StartCommand(const KelString& root, const KelString& system) {
    const KelString unit = UnitOf(root, system);
    if (unit.empty()) return "kelagent --root " + root;
    return unit.find('@') == KelString::npos ? "systemctl start " + unit : "systemctl enable --now " + unit;
}

KelString RestartCommand(const KelString& root, const KelString& system) {
    const KelString unit = UnitOf(root, system);
    return unit.empty() ? StartCommand(root, system) : "systemctl restart " + unit;
}

AsOwner::AsOwner(const KelString& root) {
    struct stat owner {};
    if (geteuid() != 0 || stat(root.c_str(), &owner) != 0 || owner.st_uid == 0) return;
    if (setgroups(0, nullptr) != 0 || setegid(owner.st_gid) != 0 || seteuid(owner.st_uid) != 0)
        throw std::runtime_error("cannot work as the owner of " + root);
    isOther_ = true;
}

AsOwner::~AsOwner() {
    // Root gets back what it was; where that fails, it goes on with fewer rights.
    if (isOther_ && seteuid(0) == 0) [[maybe_unused]]
        const int result = setegid(0);
}

KelStatus CopyToNewFile(const UniqueFd& source, const KelString& path) {
    const KelString part = path + ".part";
    FileDelete(part);
    const UniqueFd copy(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!copy) return SystemError("A file cannot be made:", part);
    ssize_t sent = 1;
    while (sent > 0)
        sent = sendfile(copy.Get(), source.Get(), nullptr, kMostAtOnce);
    if (sent == 0 && fsync(copy.Get()) == 0 && rename(part.c_str(), path.c_str()) == 0) return {};
    const KelError failure = SystemError("A file cannot be written:", path);
    FileDelete(part);
    return failure;
}

KelResult<UniqueFd> LockStoppedRoot(const KelString& root) {
    const KelString path = root + "/data/agent.lock";
    PathCreate(root + "/data");
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return SystemError("The lock of the agent cannot be opened:", path);
    if (flock(file.Get(), LOCK_EX | LOCK_NB) == 0) return file;
    if (errno != EWOULDBLOCK) return SystemError("The lock of the agent cannot be taken:", path);
    return UniqueFd();
}

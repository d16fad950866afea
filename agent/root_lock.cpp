#include "agent/root_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kel/path.h"

KelResult<UniqueFd> LockRoot(const KelString& root) {
    const KelString path = root + "data/agent.lock";
    PathCreate(root + "data");
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return KelError{1, path + ": cannot be opened: " + std::strerror(errno)};
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
        return KelError{errno == EWOULDBLOCK ? kRootLocked : 1, path + ": another agent runs on this root"};
    const KelString pid = std::to_string(getpid()) + "\n";
    if (ftruncate(file.Get(), 0) != 0 || write(file.Get(), pid.data(), pid.size()) < 0)
        return KelError{1, path + ": cannot be written: " + std::strerror(errno)};
    return file;
}

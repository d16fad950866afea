#include "kel/unique_fd.h"

#include <unistd.h>
#include <cerrno>

void UniqueFd::Reset(int fd) {
    const int old = std::exchange(fd_, fd);
    if (old < 0) return;
    // Callers read errno after a failed call whose descriptors are closed on the way out.
    const int error = errno;
    ::close(old);
    errno = error;
}

#include "kelcore/local_socket.h"

#include <fcntl.h>

#include "kel/format.h"

KelSocketPath::KelSocketPath(const KelString& folder, const char* name)
    : folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (folder_) text_ = KelFormat("/proc/self/fd/%d/%s", folder_.Get(), name);
}

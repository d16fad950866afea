#include "kel/file_times.h"

#include <sys/stat.h>

#include <algorithm>

std::int64_t FileLastChange(const KelString& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return -1;
    return std::max(status.st_mtim.tv_sec, status.st_ctim.tv_sec);
}

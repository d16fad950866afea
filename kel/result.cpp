#include "kel/result.h"

#include <cerrno>
#include <system_error>

#include "kel/format.h"

namespace {

const char* Advice(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return "free space on its file system";
        case EACCES:
        case EPERM:
            return "check the owner and rights of it and of its folder";
        case EROFS:
            return "its file system is read-only";
        case ENOENT:
        case ENOTDIR:
            return "check that it and its folder exist";
        case EMFILE:
        case ENFILE:
            return "raise the limit on open files";
        case EIO:
            return "check the disk";
        case EISDIR:
            return "a file must be named, not a folder";
        default:
            return "see the system's log";
    }
}

}  // namespace

KelError SystemError(const char* what, const KelString& path) {
    const int error = errno;
    return {
        error == ENOENT ? kKelPathNotFound : kKelFailure,
        KelFormat("%s \"%S\": %S; %s", what, path, std::generic_category().message(error), Advice(error))};
}

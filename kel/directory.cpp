#include "kel/directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <memory>

#include "kel/file.h"
#include "kel/result.h"
#include "kel/unique_fd.h"

namespace {

/// Folders inside each other are followed to this depth; a path could not be longer anyway.
constexpr int kMaxDepth = 1024;

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

/// Names in an open folder; false when reading fails. Opens a descriptor of its own, because closedir closes
/// the one that it works on.
bool ReadNames(int folder, KelVector<KelString>& names) {
    UniqueFd own(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!own) return false;
    const Dir dir(::fdopendir(own.Get()));
    if (!dir) return false;
    own.Release();
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        const KelString name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return errno == 0;
}

/// Works on names relative to open folders, so that a folder that is replaced by a link meanwhile is not
/// followed.
bool DeleteContent(int folder, int depth) {
    KelVector<KelString> names;
    if (depth == kMaxDepth || !ReadNames(folder, names)) return false;
    for (const KelString& name : names) {
        if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) continue;
        // How unlink refuses a folder: EISDIR on Linux, EPERM in POSIX.
        if (errno != EISDIR && errno != EPERM) return false;
        const UniqueFd inner(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!inner || !DeleteContent(inner.Get(), depth + 1)) return false;
        if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) return false;
    }
    return true;
}

bool CopyLink(const KelString& source, const KelString& destination) {
    KelString target(4096, '\0');
    const ssize_t length = ::readlink(source.c_str(), target.data(), target.size());
    if (length < 0 || static_cast<std::size_t>(length) == target.size()) return false;
    target.resize(static_cast<std::size_t>(length));
    return FileDelete(destination) && ::symlink(target.c_str(), destination.c_str()) == 0;
}

bool CopyTree(const KelString& source, const KelString& destination, int depth);

bool CopyEntry(const KelString& source, const KelString& destination, int depth) {
    struct stat status {};
    if (::lstat(source.c_str(), &status) != 0) return false;
    if (S_ISDIR(status.st_mode)) return CopyTree(source, destination, depth);
    if (S_ISLNK(status.st_mode)) return CopyLink(source, destination);
    return FileCopy(source, destination, false);
}

bool CopyTree(const KelString& source, const KelString& destination, int depth) {
    const UniqueFd folder(::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    KelVector<KelString> names;
    if (depth == kMaxDepth || !folder || !ReadNames(folder.Get(), names) || !DirCreate(destination))
        return false;
    return std::all_of(names.begin(), names.end(), [&](const KelString& name) {
        return CopyEntry(source + "/" + name, destination + "/" + name, depth + 1);
    });
}

}  // namespace

bool DirExists(const KelString& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool DirCreate(const KelString& path) {
    return ::mkdir(path.c_str(), 0777) == 0 || DirExists(path);
}

bool DirCopy(const KelString& source, const KelString& destination) {
    return DirCreate(destination) &&
           (::access(source.c_str(), F_OK) != 0 ? errno == ENOENT : CopyTree(source, destination, 0));
}

bool DirDelete(const KelString& path, bool recursive) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT;
    if (!S_ISDIR(status.st_mode)) return false;
    if (recursive) {
        const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder || !DeleteContent(folder.Get(), 0)) return false;
    }
    return ::rmdir(path.c_str()) == 0 || errno == ENOENT;
}

bool DirDeleteTempFiles(const KelString& folder) {
    bool areGone = true;
    for (const KelString& name : DirList(folder))
        if (name.starts_with(kTempFilePrefix)) areGone &= FileDelete(folder + "/" + name);
    return areGone;
}

KelVector<KelString> DirList(const KelString& path) {
    const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    KelVector<KelString> names;
    if (folder && !ReadNames(folder.Get(), names)) names.clear();
    return names;
}

bool DirSyncFileSystem(const KelString& path) {
    const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::syncfs(folder.Get()) == 0;
}

unsigned int DiskFree(const KelString& path, std::uint64_t& bytes) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0)
        return errno == ENOENT || errno == ENOTDIR ? kKelPathNotFound : kKelFailure;
    bytes = static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
    return 0;
}

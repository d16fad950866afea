#include "kel/file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

#include "kel/checksum.h"
#include "kel/file_content.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"

namespace {

KelString FolderOf(const KelString& path) {
    const std::size_t end = path.rfind('/');
    return end == KelString::npos ? "." : path.substr(0, end + 1);
}

bool Sync(const KelString& path, int flags) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | flags));
    return fd && ::fsync(fd.Get()) == 0;
}

bool SyncFolderOf(const KelString& path) {
    return Sync(FolderOf(path), O_DIRECTORY);
}

bool Rename(const KelString& source, const KelString& destination, bool failIfExists) {
    if (!failIfExists) return ::rename(source.c_str(), destination.c_str()) == 0;
    if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without RENAME_NOREPLACE: link(2) refuses an existing name too.
    return ::link(source.c_str(), destination.c_str()) == 0 && ::unlink(source.c_str()) == 0;
}

/// A temporary file that is removed at the end unless it was moved into place.
class TempFile {
  public:
    explicit TempFile(const KelString& folder) : fd_(FileCreateTemp(folder, path_)) {}
    ~TempFile() {
        if (fd_) ::unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    int Fd() const { return fd_.Get(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }

    /// Syncs the content and renames the file to `destination`; errno is set on failure.
    bool MoveTo(const KelString& destination, bool failIfExists) {
        if (::fsync(fd_.Get()) != 0 || !Rename(path_, destination, failIfExists)) return false;
        fd_.Reset();
        return SyncFolderOf(destination);
    }

  private:
    KelString path_;
    UniqueFd fd_;
};

/// The elements of a path that is to lie beneath a folder; false, with errno set, when it may not.
bool SplitBeneath(const KelString& path, KelVector<KelString>& elements) {
    if (path.starts_with('/') || path.find('\0') != KelString::npos) {
        errno = EXDEV;
        return false;
    }
    for (KelString& element : SplitText(path, '/')) {
        if (element == "..") {
            errno = EXDEV;
            return false;
        }
        if (!element.empty() && element != ".") elements.push_back(std::move(element));
    }
    return true;
}

/// Whatever the umask; a folder that hands its group on to what is made in it keeps doing so.
bool SetFolderMode(int folder, unsigned int mode) {
    struct stat status {};
    return ::fstat(folder, &status) == 0 && ::fchmod(folder, mode | (status.st_mode & S_ISGID)) == 0;
}

/// A new file in an open folder, mode 0600; sets its name.
UniqueFd CreateTempIn(int folder, KelString& name) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        name = KelString(kTempFilePrefix) + TextMd5(RandomBytes(16)).substr(0, 12);
        UniqueFd file(
            ::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file || errno != EEXIST) return file;
    }
    return {};
}

bool CopyExpected(int source, int destination, const KelString& sha256) {
    if (sha256.empty()) return FileCopyContent(source, destination);
    KelString copied;
    if (!FileCopyContent(source, destination, copied)) return false;
    errno = EKEYREJECTED;  // which no file system gives
    return copied == sha256;
}

}  // namespace

bool FileIsMissing(const KelString& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

bool FileIsOpenToOthers(const KelString& path, unsigned int permissions) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && (status.st_mode & permissions) != 0;
}

bool FileExists(const KelString& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

std::int64_t FileGetSize64(const KelString& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode) ? status.st_size : -1;
}

bool FileCopy(const KelString& source, const KelString& destination, bool failIfExists,
              const KelString& workFolder) {
    // O_NONBLOCK: a pipe must not block the open.
    const UniqueFd from(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!from || ::fstat(from.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (failIfExists && (FileExists(destination) || ::access(destination.c_str(), F_OK) == 0)) {
        errno = EEXIST;
        return false;
    }
    TempFile copy(workFolder.empty() ? FolderOf(destination) : workFolder);
    if (!copy || !FileCopyContent(from.Get(), copy.Fd()) || ::fchmod(copy.Fd(), status.st_mode & 0777) != 0)
        return false;
    if (copy.MoveTo(destination, failIfExists)) return true;
    return errno == EXDEV && !workFolder.empty() && FileCopy(source, destination, failIfExists);
}

bool FileRename(const KelString& source, const KelString& destination, bool failIfExists) {
    // A symbolic link (ELOOP) has no content of its own to put on the disk.
    if (!Sync(source, O_NOFOLLOW) && errno != ELOOP) return false;
    // The content is on the disk before the name: after a power cut the new name never holds less.
    if (Rename(source, destination, failIfExists)) {
        const KelString from = FolderOf(source);
        const KelString to = FolderOf(destination);
        return Sync(to, O_DIRECTORY) && (from == to || Sync(from, O_DIRECTORY));
    }
    return errno == EXDEV && FileCopy(source, destination, failIfExists) && FileDelete(source);
}

bool FileDelete(const KelString& path) {
    // ENOTDIR: a folder on the way is a file, so there is no such file either.
    return ::unlink(path.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR;
}

KelStatus FileWriteText(const KelString& path, std::string_view content, unsigned int mode) {
    TempFile file(FolderOf(path));
    if (!file || !FileWriteAll(file.Fd(), content) || ::fchmod(file.Fd(), mode & 07777) != 0 ||
        !file.MoveTo(path, false))
        return SystemError("A file cannot be written:", path);
    return {};
}

KelResult<KelString> FileReadText(const KelString& path, std::uint64_t maxBytes) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    KelString content;
    if (!fd || !FileReadAll(fd.Get(), maxBytes, content)) {
        if (fd && errno == EFBIG)
            return KelError{kKelFailure, KelFormat("The file \"%S\" is refused: it holds more than %gu bytes",
                                                   path, maxBytes)};
        return SystemError("A file cannot be read:", path);
    }
    return content;
}

bool FileSync(const KelString& path) {
    return Sync(path, 0) && SyncFolderOf(path);
}

UniqueFd FileCreateTemp(const KelString& folder, KelString& path) {
    KelString name = folder;
    if (name.empty()) {
        const char* fromEnvironment = std::getenv("TMPDIR");
        name = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/tmp";
    }
    if (name.back() != '/') name += '/';
    name += kTempFilePrefix;
    name += "XXXXXX";
    UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
    if (fd) path = name;
    return fd;
}

UniqueFd FileOpenBeneath(const KelString& root, const KelString& relativePath, int flags, unsigned int mode) {
    const UniqueFd folder(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder ? FileOpenBeneath(folder, relativePath, flags, mode) : UniqueFd();
}

UniqueFd FileOpenBeneath(const UniqueFd& root, const KelString& relativePath, int flags, unsigned int mode) {
    if (relativePath.find('\0') != KelString::npos) {
        errno = EINVAL;
        return {};
    }
    open_how how{};
    how.flags = static_cast<unsigned int>(flags | O_CLOEXEC);
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) how.mode = mode;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    // The kernel gives up with EAGAIN when a rename elsewhere crosses its walk.
    for (int attempt = 0;; ++attempt) {
        const long fd = ::syscall(SYS_openat2, root.Get(), relativePath.c_str(), &how, sizeof how);
        if (fd < 0 && errno == ENOSYS) return FileOpenByWalk(root, relativePath, flags, mode);
        if (fd >= 0 || errno != EAGAIN || attempt == 16) return UniqueFd(static_cast<int>(fd));
    }
}

UniqueFd FileOpenByWalk(const UniqueFd& root, const KelString& relativePath, int flags, unsigned int mode) {
    KelVector<KelString> elements;
    if (!SplitBeneath(relativePath, elements)) return {};
    if (elements.empty()) return UniqueFd(::openat(root.Get(), ".", flags | O_CLOEXEC, mode));
    const KelString last = std::move(elements.back());
    elements.pop_back();
    UniqueFd folder(::openat(root.Get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const KelString& element : elements) {
        folder.Reset(::openat(folder.Get(), element.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) return {};
    }
    UniqueFd file(::openat(folder.Get(), last.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
    struct stat status {};
    // With O_PATH the link itself is opened.
    if (file && (flags & O_PATH) != 0 && ::fstat(file.Get(), &status) == 0 && S_ISLNK(status.st_mode)) {
        errno = ELOOP;
        return {};
    }
    return file;
}

UniqueFd DirCreateBeneath(const UniqueFd& root, const KelString& relativePath, unsigned int mode) {
    KelVector<KelString> elements;
    if (!SplitBeneath(relativePath, elements)) return {};
    UniqueFd folder(::openat(root.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const KelString& element : elements) {
        if (!folder) return {};
        const bool isNew = ::mkdirat(folder.Get(), element.c_str(), mode) == 0;
        if (!isNew && errno != EEXIST) return {};
        folder.Reset(
            ::openat(folder.Get(), element.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (folder && isNew && !SetFolderMode(folder.Get(), mode)) return {};
    }
    return folder;
}

bool FileCopyInto(const KelString& source, const UniqueFd& folder, const KelString& name, unsigned int mode,
                  const KelString& workFolder, const KelString& sha256) {
    const UniqueFd from(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!from || ::fstat(from.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    UniqueFd work;
    if (!workFolder.empty()) {
        work.Reset(::open(workFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!work) return false;
    }
    const int place = work ? work.Get() : folder.Get();
    KelString temporary;
    const UniqueFd copy = CreateTempIn(place, temporary);
    if (!copy) return false;
    if (CopyExpected(from.Get(), copy.Get(), sha256) && ::fchmod(copy.Get(), mode) == 0 &&
        ::fsync(copy.Get()) == 0 && ::renameat(place, temporary.c_str(), folder.Get(), name.c_str()) == 0)
        return ::fsync(folder.Get()) == 0;
    const int error = errno;
    ::unlinkat(place, temporary.c_str(), 0);
    errno = error;
    return error == EXDEV && work && FileCopyInto(source, folder, name, mode, {}, sha256);
}

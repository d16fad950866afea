#include "kel/tree_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "kel/directory.h"
#include "kel/file_content.h"
#include "kel/unique_fd.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

/// The names in a folder; unlike DirList, a folder that cannot be read is a failure.
KelResult<KelVector<KelString>> Names(const KelString& folder) {
    std::error_code failure;
    KelVector<KelString> names;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure))
        names.push_back(entry->path().filename().string());
    if (!failure) return names;
    errno = failure.value();
    return SystemError("A folder cannot be read:", folder);
}

bool IsMissing(const KelString& path) {
    return ::access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

/// Like DirCreate, but errno says why it failed.
bool MakeFolder(const KelString& path) {
    if (::mkdir(path.c_str(), 0777) == 0) return true;
    const int error = errno;
    const bool isThere = error == EEXIST && DirExists(path);
    errno = error;
    return isThere;
}

/// What a copy has in common with the entry that it was made of.
bool SetTimes(const KelString& path, const struct stat& status) {
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    return ::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0;
}

class Copier {
  public:
    explicit Copier(const TreeCopyStep& step) : step_(step), piece_(kPieceBytes) {}

    KelStatus CopyFolder(const KelString& source, const KelString& destination);

  private:
    KelStatus CopyEntry(const KelString& source, const KelString& destination);
    KelStatus CopyFile(const KelString& source, const KelString& destination, const struct stat& status);
    KelStatus CopyContent(int from, int to, const KelString& source, const KelString& destination);
    KelStatus Step();

    const TreeCopyStep& step_;
    std::vector<char> piece_;
    TreeSize copied_;
};

KelStatus Copier::Step() {
    return step_(copied_) ? KelStatus() : KelStatus(KelError{kTreeCopyEnded, "The copy was ended"});
}

KelStatus Copier::CopyFolder(const KelString& source, const KelString& destination) {
    struct stat status {};
    if (::stat(source.c_str(), &status) != 0) return SystemError("A folder cannot be read:", source);
    if (!MakeFolder(destination)) return SystemError("A folder cannot be created:", destination);
    const auto names = Names(source);
    if (!names) return names.Error();
    for (const KelString& name : *names)
        if (KelStatus copied = CopyEntry(source + "/" + name, destination + "/" + name); !copied)
            return copied;
    // Last, since what is made in a folder changes its time and needs the right to write there.
    if (::chmod(destination.c_str(), status.st_mode & 07777) != 0 || !SetTimes(destination, status))
        return SystemError("Mode and times of a folder cannot be set:", destination);
    return {};
}

KelStatus Copier::CopyEntry(const KelString& source, const KelString& destination) {
    struct stat status {};
    if (::lstat(source.c_str(), &status) != 0) return SystemError("A file cannot be read:", source);
    if (S_ISDIR(status.st_mode)) return CopyFolder(source, destination);
    if (::unlink(destination.c_str()) != 0 && errno != ENOENT)
        return SystemError("A file cannot be replaced:", destination);
    // Also a link, a pipe or a socket can have another name.
    if (::link(source.c_str(), destination.c_str()) == 0) {
        copied_.bytes += S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    } else if (S_ISLNK(status.st_mode)) {
        std::error_code failure;
        fs::copy_symlink(source, destination, failure);
        errno = failure.value();
        if (failure || !SetTimes(destination, status))
            return SystemError("A link cannot be copied to", destination);
    } else if (KelStatus copied = CopyFile(source, destination, status); !copied) {
        return copied;
    }
    ++copied_.files;
    return Step();
}

KelStatus Copier::CopyFile(const KelString& source, const KelString& destination, const struct stat& status) {
    // O_NONBLOCK: a pipe must not block the open. It has no content that could be copied.
    const UniqueFd from(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!from) return SystemError("A file cannot be read:", source);
    const UniqueFd to(::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!to) return SystemError("A file cannot be created:", destination);
    if (S_ISREG(status.st_mode))
        if (KelStatus copied = CopyContent(from.Get(), to.Get(), source, destination); !copied) return copied;
    if (::fchmod(to.Get(), status.st_mode & 07777) != 0 || !SetTimes(destination, status))
        return SystemError("Mode and times of a file cannot be set:", destination);
    return {};
}

KelStatus Copier::CopyContent(int from, int to, const KelString& source, const KelString& destination) {
    for (;;) {
        const ssize_t got = ::read(from, piece_.data(), piece_.size());
        if (got == 0) return {};
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return SystemError("A file cannot be read:", source);
        const auto bytes = static_cast<std::size_t>(got);
        if (!FileWriteAll(to, {piece_.data(), bytes}))
            return SystemError("A file cannot be written:", destination);
        copied_.bytes += bytes;
        if (KelStatus goesOn = Step(); !goesOn) return goesOn;
    }
}

}  // namespace

KelResult<TreeSize> TreeMeasure(const KelString& folder) {
    TreeSize size;
    std::error_code failure;
    fs::recursive_directory_iterator entry(folder, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
        const fs::file_status status = entry->symlink_status(failure);
        if (failure || fs::is_directory(status)) continue;
        ++size.files;
        if (fs::is_regular_file(status)) size.bytes += entry->file_size(failure);
    }
    if (!failure || IsMissing(folder)) return size;
    errno = failure.value();
    return SystemError("A folder cannot be examined:", folder);
}

bool TreesShareFileSystem(const KelString& left, const KelString& right) {
    struct stat one {
    }, other{};
    return ::stat(left.c_str(), &one) == 0 && ::stat(right.c_str(), &other) == 0 &&
           one.st_dev == other.st_dev;
}

KelStatus TreeCopy(const KelString& source, const KelString& destination, const TreeCopyStep& step) {
    if (!IsMissing(source)) return Copier(step).CopyFolder(source, destination);
    return MakeFolder(destination) ? KelStatus() : SystemError("A folder cannot be created:", destination);
}

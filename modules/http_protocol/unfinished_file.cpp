#include "modules/http_protocol/unfinished_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>

#include "kel/checksum.h"
#include "kel/path.h"
#include "kel/text.h"
#include "modules/http_protocol/protected_files.h"

namespace kelhttp {
namespace {

/// A hidden file that was not written to for so many seconds was left by a killed process.
constexpr std::time_t kLeftoverAge = 24L * 3600;

KelString MakeHiddenName() {
    return KelString(kUploadPrefix) + HexText(RandomBytes(12));
}

}  // namespace

UnfinishedFile::~UnfinishedFile() {
    Drop();
}

void UnfinishedFile::Drop() {
    if (folder_ && !hiddenName_.empty()) ::unlinkat(folder_.Get(), hiddenName_.c_str(), 0);
    hiddenName_.clear();
    file_.Reset();
}

bool UnfinishedFile::OpenFolder() {
    KelString folder;
    SplitPath(place_.rest, folder, name_);
    folder_ = place_.root->Open(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    return static_cast<bool>(folder_);
}

bool UnfinishedFile::IsKeptForAgent() const {
    return IsStateName(name_) && IsStateFolder(folder_);
}

bool UnfinishedFile::HasRoomFor(std::uint64_t size) const {
    struct statvfs room {};
    return ::fstatvfs(folder_.Get(), &room) != 0 || size / room.f_frsize <= room.f_bavail;
}

const char* UnfinishedFile::Create(std::uint64_t size) {
    static constexpr const char* kCannotCreate = "create a file next to";
    static constexpr const char* kCannotReserve = "reserve the space of";
    Drop();
    file_.Reset(::openat(folder_.Get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
    if (!file_ && errno != EOPNOTSUPP && errno != EISDIR) return kCannotCreate;
    if (!file_ && !MakeHiddenFile()) return kCannotCreate;
    if (!HasRoomFor(size)) {  // an attempt could fill the disk before it fails
        errno = ENOSPC;
        return kCannotReserve;
    }
    const bool isReserved =
        size == 0 || ::fallocate(file_.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0;
    if (!isReserved && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) return kCannotReserve;
    return nullptr;
}

bool UnfinishedFile::MakeHiddenFile() {
    RemoveLeftovers();
    const KelString name = MakeHiddenName();
    file_.Reset(
        ::openat(folder_.Get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file_) return false;
    hiddenName_ = name;
    return true;
}

void UnfinishedFile::RemoveLeftovers() const {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(
        ::fdopendir(::openat(folder_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), ::closedir);
    if (!folder) return;
    while (const dirent* const entry = ::readdir(folder.get())) {
        struct stat info {};
        if (!std::string_view(entry->d_name).starts_with(kUploadPrefix) ||
            ::fstatat(folder_.Get(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
            info.st_mtime > std::time(nullptr) - kLeftoverAge)
            continue;
        ::unlinkat(folder_.Get(), entry->d_name, 0);
    }
}

/// A nameless file can only be linked to a free name: to replace another file, it first gets a hidden name.
bool UnfinishedFile::PutInPlace() {
    if (hiddenName_.empty()) {
        const KelString file = OpenPath();
        const auto link = [this, &file](const KelString& name) {
            return ::linkat(AT_FDCWD, file.c_str(), folder_.Get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0;
        };
        isNew_ = link(name_);
        if (isNew_) return true;
        if (errno != EEXIST) return false;
        const KelString hidden = MakeHiddenName();
        if (!link(hidden)) return false;
        hiddenName_ = hidden;
    } else {
        struct stat old {};
        isNew_ = ::fstatat(folder_.Get(), name_.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0;
    }
    if (::renameat(folder_.Get(), hiddenName_.c_str(), folder_.Get(), name_.c_str()) != 0) return false;
    hiddenName_.clear();
    return true;
}

bool UnfinishedFile::SyncFolder() const {
    return ::fsync(folder_.Get()) == 0;
}

KelString UnfinishedFile::OpenPath() const {
    return "/proc/self/fd/" + std::to_string(file_.Get());
}

KelString UnfinishedFile::Destination() const {
    const KelString& root = place_.root->Path();
    return root + (root.ends_with('/') ? "" : "/") + place_.rest;
}

}  // namespace kelhttp

#include "modules/http_protocol/unfinished_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>
#include <thread>

#include "kel/checksum.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/http/part_file.h"
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
    if (isPart_) KeepPart();
    Drop();
}

void UnfinishedFile::Drop() {
    if (folder_ && !hiddenName_.empty()) ::unlinkat(folder_.Get(), hiddenName_.c_str(), 0);
    hiddenName_.clear();
    isPart_ = false;
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
    Drop();
    file_.Reset(::openat(folder_.Get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
    if (!file_ && errno != EOPNOTSUPP && errno != EISDIR) return kCannotCreate;
    if (!file_ && !MakeHiddenFile()) return kCannotCreate;
    return Reserve(0, size);
}

const char* UnfinishedFile::Reserve(std::uint64_t from, std::uint64_t size) {
    static constexpr const char* kCannotReserve = "reserve the space of";
    if (size <= from) return nullptr;
    if (!HasRoomFor(size - from)) {  // an attempt could fill the disk before it fails
        errno = ENOSPC;
        return kCannotReserve;
    }
    const bool isReserved = ::fallocate(file_.Get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                                        static_cast<off_t>(size - from)) == 0;
    if (!isReserved && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) return kCannotReserve;
    return nullptr;
}

/// The names of parts have one length, whatever the names of destination and owner.
KelString UnfinishedFile::PartName(std::string_view owner) const {
    constexpr std::size_t kDigits = 16;
    return KelString(kPartFilePrefix) + TextMd5(name_).substr(0, kDigits) + "-" +
           TextMd5(owner).substr(0, kDigits);
}

/// Opens a part that no other object writes. The lock ends with the descriptor, also when the process is
/// killed.
UniqueFd UnfinishedFile::LockPart(const KelString& name, int flags) const {
    UniqueFd part(::openat(folder_.Get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | flags, 0644));
    if (!part || ::flock(part.Get(), LOCK_EX | LOCK_NB) == 0) return part;
    part.Reset();
    errno = EBUSY;
    return part;
}

const char* UnfinishedFile::CreatePart(std::string_view owner, std::uint64_t size) {
    Drop();
    const KelString name = PartName(owner);
    RemoveParts(name);
    file_ = LockPart(name, O_CREAT);
    if (!file_ || ::ftruncate(file_.Get(), 0) != 0) return Create(size);
    hiddenName_ = name;
    isPart_ = true;
    return Reserve(0, size);
}

const char* UnfinishedFile::OpenPart(std::string_view owner, std::uint64_t keep, std::uint64_t size) {
    static constexpr const char* kCannotResume = "resume";
    Drop();
    const KelString name = PartName(owner);
    file_ = LockPart(name, 0);
    if (!file_) return kCannotResume;
    hiddenName_ = name;
    isPart_ = true;
    struct stat info {};
    if (::fstat(file_.Get(), &info) != 0) return kCannotResume;
    if (static_cast<std::uint64_t>(info.st_size) < keep) {
        errno = ENOENT;
        return kCannotResume;
    }
    if (::ftruncate(file_.Get(), static_cast<off_t>(keep)) != 0 ||
        ::lseek(file_.Get(), static_cast<off_t>(keep), SEEK_SET) < 0)
        return kCannotResume;
    return Reserve(keep, size);
}

std::uint64_t UnfinishedFile::PartLength(std::string_view owner) const {
    constexpr int kTries = 20;
    constexpr std::chrono::milliseconds kPause{50};
    UniqueFd part = LockPart(PartName(owner), 0);
    for (int tries = 1; !part && errno == EBUSY && tries < kTries; ++tries) {
        std::this_thread::sleep_for(kPause);
        part = LockPart(PartName(owner), 0);
    }
    struct stat info {};
    if (part && ::fstat(part.Get(), &info) == 0) errno = ENOENT;
    return static_cast<std::uint64_t>(info.st_size);
}

/// A part that is being written stays: its writer removes it when it finds the destination in place.
void UnfinishedFile::RemoveParts(const KelString& kept) const {
    const KelString any = PartName({});
    const std::string_view begin = std::string_view(any).substr(0, any.rfind('-') + 1);
    for (const KelString& name : NamesInFolder()) {
        if (name == kept || !name.starts_with(begin)) continue;
        if (const UniqueFd part = LockPart(name, 0)) ::unlinkat(folder_.Get(), name.c_str(), 0);
    }
}

/// Leaves the part for a later object. When the destination has come in another way in the meantime, or
/// nothing has come, the part is of no use.
void UnfinishedFile::KeepPart() {
    struct stat info {};
    const bool isInPlace = ::fstatat(folder_.Get(), name_.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    if (isInPlace || ::fstat(file_.Get(), &info) != 0 || info.st_size == 0) return;
    // Gives back what is reserved behind its end.
    if (::ftruncate(file_.Get(), info.st_size) != 0) return;
    hiddenName_.clear();
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

KelVector<KelString> UnfinishedFile::NamesInFolder() const {
    KelVector<KelString> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(
        ::fdopendir(::openat(folder_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), ::closedir);
    while (const dirent* const entry = folder ? ::readdir(folder.get()) : nullptr)
        names.emplace_back(entry->d_name);
    return names;
}

void UnfinishedFile::RemoveLeftovers() const {
    for (const KelString& name : NamesInFolder()) {
        struct stat info {};
        if (!name.starts_with(kUploadPrefix) ||
            ::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
            info.st_mtime > std::time(nullptr) - kLeftoverAge)
            continue;
        ::unlinkat(folder_.Get(), name.c_str(), 0);
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
    isPart_ = false;
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

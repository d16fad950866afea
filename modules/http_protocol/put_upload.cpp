#include "modules/http_protocol/put_upload.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "kel/checksum.h"
#include "kel/container.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "modules/http_protocol/protected_files.h"

namespace kelhttp {
namespace {

/// Write-back is started after each such number of bytes, so that little is left to sync at the end.
constexpr std::uint64_t kHandOverBytes = 32 << 20;
/// A hidden file that was not written to for so many seconds was left by a killed process.
constexpr std::time_t kLeftoverAge = 24L * 3600;

KelString MakeHiddenName() {
    return KelString(kUploadPrefix) + HexText(RandomBytes(12));
}

unsigned int StatusOfError(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return 507;
        case ENOENT:
        case ENOTDIR:
            return 404;
        case EISDIR:
        case EEXIST:
        case ENOTEMPTY:
            return 409;
        case EXDEV:  // the kernel's answer to a path that leaves the alias
        case ELOOP:
            return 403;
        default:
            return 500;
    }
}

unsigned int StatusOfAnswer(unsigned int answer) {
    switch (answer) {
        case 0:
            return 0;
        case kKelAnswerNotExpected:
            return 404;
        case kKelAnswerOtherContent:
            return 422;
        default:
            return 503;
    }
}

}  // namespace

PutUpload::PutUpload(KelString url, AliasMatch place, std::uint64_t size, const KelDebug& log)
    : url_(std::move(url)), place_(std::move(place)), size_(size), log_(log) {}

PutUpload::~PutUpload() {
    if (folder_ && !hiddenName_.empty()) ::unlinkat(folder_.Get(), hiddenName_.c_str(), 0);
}

unsigned int PutUpload::Begin() {
    KelString folder;
    SplitPath(place_.rest, folder, name_);
    folder_ = place_.root->Open(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    if (!folder_) return Fail("open the folder of");
    if (IsStateName(name_) && IsStateFolder(folder_)) {
        log_.Warning("Upload of %S refused: %S/%S is kept for the agent's own files.\n", url_,
                     place_.root->Path(), place_.rest);
        return 403;
    }
    file_.Reset(::openat(folder_.Get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
    if (!file_ && errno != EOPNOTSUPP && errno != EISDIR) return Fail("create a file next to");
    if (const unsigned int status = file_ ? 0 : MakeHiddenFile()) return status;
    // Space is reserved at once, so that a full disk is reported before the body is sent. On file systems
    // that cannot reserve, the error comes with a write.
    if (size_ > 0 && ::fallocate(file_.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size_)) != 0 &&
        StatusOfError(errno) == 507)
        return Fail("reserve the space of");
    return 0;
}

unsigned int PutUpload::MakeHiddenFile() {
    RemoveLeftovers();
    const KelString name = MakeHiddenName();
    file_.Reset(
        ::openat(folder_.Get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file_) return Fail("create a file next to");
    hiddenName_ = name;
    return 0;
}

void PutUpload::RemoveLeftovers() const {
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

unsigned int PutUpload::Write(std::string_view data) {
    while (!data.empty()) {
        const ssize_t count = ::write(file_.Get(), data.data(), data.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Fail("write");
        data.remove_prefix(static_cast<std::size_t>(count));
        written_ += static_cast<std::uint64_t>(count);
    }
    if (written_ - handedOver_ < kHandOverBytes) return 0;
    // A hint only: errors show in the final sync.
    ::sync_file_range(file_.Get(), static_cast<off_t>(handedOver_),
                      static_cast<off_t>(written_ - handedOver_), SYNC_FILE_RANGE_WRITE);
    handedOver_ = written_;
    return 0;
}

unsigned int PutUpload::Commit() {
    if (::fsync(file_.Get()) != 0) return Fail("sync");
    if (const unsigned int status = Trigger("HttpProtocolCallbackPutCheck")) return status;
    if (!PutInPlace()) return Fail("put in place");
    if (::fsync(folder_.Get()) != 0) return Fail("sync the folder of");
    file_.Reset();
    return Trigger("HttpProtocolCallbackPut");
}

/// A nameless file can only be linked to a free name: to replace another file, it first gets a hidden name.
bool PutUpload::PutInPlace() {
    if (hiddenName_.empty()) {
        const KelString file = OpenFilePath();
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

/// The open file under a path that any code of this process can open, whether or not the file has a name.
KelString PutUpload::OpenFilePath() const {
    return "/proc/self/fd/" + std::to_string(file_.Get());
}

/// Triggers an event; the HTTP status with which a subscriber has the upload refused, 0 when none does.
unsigned int PutUpload::Trigger(const char* event) const {
    KelContainer arguments;
    arguments.SetString("URL", url_);
    arguments.SetString("MulticastAddress", "");
    const KelString& root = place_.root->Path();
    arguments.SetString("LocalPath", root + (root.ends_with('/') ? "" : "/") + place_.rest);
    if (file_) arguments.SetString("ContentPath", OpenFilePath());
    KelContainer results;
    const unsigned int answer = CallbackDbTrigger(event, arguments, results);
    if (answer != 0)
        log_.Warning("Upload of %S refused: a subscriber of %s answered %u.\n", url_, event, answer);
    return StatusOfAnswer(answer);
}

unsigned int PutUpload::Fail(const char* what) {
    const int error = errno;
    log_.Error("Upload of %S: cannot %s %S/%S: %s. The upload is refused; the sender will try again.\n", url_,
               what, place_.root->Path(), place_.rest, std::strerror(error));
    return StatusOfError(error);
}

}  // namespace kelhttp

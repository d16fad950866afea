#include "modules/http_protocol/put_upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kel/checksum.h"
#include "kel/container.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/callback_db.h"
#include "modules/http_protocol/request_path.h"

namespace kelhttp {
namespace {

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

}  // namespace

PutUpload::PutUpload(KelString url, AliasMatch place, std::uint64_t size, const KelDebug& log)
    : url_(std::move(url)), place_(std::move(place)), size_(size), log_(log) {}

PutUpload::~PutUpload() {
    if (folder_ && !temporaryName_.empty()) ::unlinkat(folder_.Get(), temporaryName_.c_str(), 0);
}

unsigned int PutUpload::Begin() {
    KelString folder;
    SplitPath(place_.rest, folder, name_);
    folder_ = FileOpenBeneath(place_.root, folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    if (!folder_) return Fail("open the folder of");
    temporaryName_ = KelString(kUploadPrefix) + HexText(RandomBytes(12));
    file_.Reset(::openat(folder_.Get(), temporaryName_.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file_) return Fail("make a temporary file beside");
    // Space is claimed at once, so that a full disk is told before the body is sent. File systems that cannot
    // do that tell it later.
    if (size_ > 0 && ::fallocate(file_.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size_)) != 0 &&
        StatusOfError(errno) == 507)
        return Fail("reserve the space of");
    return 0;
}

unsigned int PutUpload::Write(std::string_view data) {
    while (!data.empty()) {
        const ssize_t count = ::write(file_.Get(), data.data(), data.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Fail("write");
        data.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

unsigned int PutUpload::Commit() {
    struct stat old {};
    isNew_ = ::fstatat(folder_.Get(), name_.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0;
    if (::fsync(file_.Get()) != 0) return Fail("sync");
    if (::renameat(folder_.Get(), temporaryName_.c_str(), folder_.Get(), name_.c_str()) != 0)
        return Fail("put in place");
    temporaryName_.clear();
    if (::fsync(folder_.Get()) != 0) return Fail("sync the folder of");
    file_.Reset();
    Trigger();
    return 0;
}

void PutUpload::Trigger() const {
    KelContainer arguments;
    arguments.SetString("URL", url_);
    arguments.SetString("MulticastAddress", "");
    arguments.SetString("LocalPath", place_.root + (place_.root.ends_with('/') ? "" : "/") + place_.rest);
    KelContainer results;
    if (const unsigned int result = CallbackDbTrigger("HttpProtocolCallbackPut", arguments, results))
        log_.Warning("A subscriber of HttpProtocolCallbackPut answered %u to the upload of %S.\n", result,
                     url_);
}

unsigned int PutUpload::Fail(const char* what) {
    const int error = errno;
    log_.Error("Upload of %S: cannot %s %S/%S: %s. The upload is refused; the sender will try again.\n", url_,
               what, place_.root, place_.rest, std::strerror(error));
    return StatusOfError(error);
}

}  // namespace kelhttp

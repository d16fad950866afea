#include "modules/http_protocol/put_upload.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "kel/container.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/transfer_counters.h"

namespace kelhttp {
namespace {

/// Write-back is started after each such number of bytes, so that little is left to sync at the end.
constexpr std::uint64_t kHandOverBytes = 32 << 20;

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

PutUpload::PutUpload(Request request, AliasMatch place, const KelDebug& log)
    : request_(std::move(request)), file_(std::move(place)), log_(log) {}

unsigned int PutUpload::Begin() {
    lease_ = KelFileLease(file_.Destination());
    if (!file_.OpenFolder()) return Fail("open the folder of");
    if (file_.IsKeptForAgent()) {
        log_.Warning("Upload of %S refused: %S is kept for the agent's own files.\n", request_.url,
                     file_.Destination());
        return 403;
    }
    if (request_.first > 0 || request_.size > kLeastKept) {
        if (const unsigned int status = TriggerBegin()) return status;
    }
    const char* failed = nullptr;
    if (request_.first > 0)
        failed = file_.OpenPart(request_.peer, request_.first, request_.size);
    else if (isKeepable_)
        failed = file_.CreatePart(request_.peer, request_.size);
    else
        failed = file_.Create(request_.size);
    if (failed == nullptr) {
        written_ = handedOver_ = request_.first;
        return 0;
    }
    const bool hasNoPart = request_.first > 0 && (errno == ENOENT || errno == EBUSY);
    return hasNoPart ? 409 : Fail(failed);
}

unsigned int PutUpload::FindKept() {
    if (file_.OpenFolder()) written_ = file_.PartLength(request_.peer);
    if (written_ > 0) return 0;
    return errno == EBUSY ? 503 : 404;
}

/// Asks whether the upload is expected, so that one that is not need not come first.
unsigned int PutUpload::TriggerBegin() {
    static constexpr const char* kEvent = "HttpProtocolCallbackPutBegin";
    KelContainer arguments;
    arguments.SetString("URL", request_.url);
    arguments.SetInt64("Size", static_cast<std::int64_t>(request_.size));
    SetCallOrigin(JudgePeer(request_.sender, KelCallers::Child), arguments);
    KelContainer results;
    const unsigned int answer = CallbackDbTrigger(kEvent, arguments, results);
    isKeepable_ = answer == kKelAnswerExpected;
    if (isKeepable_) return 0;
    if (answer == 0 && request_.first > 0) return 409;  // nothing is kept of it
    return LogRefusal(kEvent, answer);
}

unsigned int PutUpload::LogRefusal(const char* event, unsigned int answer) const {
    if (answer != 0)
        log_.Warning("Upload of %S refused: a subscriber of %s answered %u.\n", request_.url, event, answer);
    return StatusOfAnswer(answer);
}

unsigned int PutUpload::Write(std::string_view data) {
    while (!data.empty()) {
        const ssize_t count = ::write(file_.Get(), data.data(), data.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Fail("write");
        data.remove_prefix(static_cast<std::size_t>(count));
        written_ += static_cast<std::uint64_t>(count);
        KelTransfers(KelDirection::Up, KelFlow::In, KelTransport::Http)
            .bytes.Add(static_cast<std::uint64_t>(count));
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
    if (const unsigned int status = Trigger("HttpProtocolCallbackPutCheck")) {
        // Kept content that is wrong would be completed again and again.
        if (status != 503) file_.Drop();
        return status;
    }
    if (!file_.PutInPlace()) return Fail("put in place");
    if (isKeepable_) file_.RemoveParts();
    if (!file_.SyncFolder()) return Fail("sync the folder of");
    file_.Close();
    KelTransfers(KelDirection::Up, KelFlow::In, KelTransport::Http).files.Add();
    return Trigger("HttpProtocolCallbackPut");
}

/// Triggers an event; the HTTP status with which a subscriber has the upload refused, 0 when none does.
unsigned int PutUpload::Trigger(const char* event) const {
    KelContainer arguments;
    arguments.SetString("URL", request_.url);
    arguments.SetString("MulticastAddress", "");
    arguments.SetString("LocalPath", file_.Destination());
    SetCallOrigin(JudgePeer(request_.sender, KelCallers::Child), arguments);
    if (file_.IsOpen()) arguments.SetString("ContentPath", file_.OpenPath());
    KelContainer results;
    return LogRefusal(event, CallbackDbTrigger(event, arguments, results));
}

unsigned int PutUpload::Fail(const char* what) {
    const int error = errno;
    log_.Error("Upload of %S: cannot %s %S: %s. The upload is refused; the sender will try again.\n",
               request_.url, what, file_.Destination(), std::strerror(error));
    return StatusOfError(error);
}

}  // namespace kelhttp

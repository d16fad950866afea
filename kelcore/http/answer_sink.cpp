#include "kelcore/http/answer_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/http/client.h"
#include "kelcore/metrics/transfer_counters.h"

namespace {

constexpr std::uint64_t kMaxDiscarded = 1 << 20;  ///< bytes of an unwanted body that are read

}  // namespace

std::optional<HttpContentRange> ParseContentRange(std::string_view value) {
    static constexpr std::string_view kUnit = "bytes ";
    if (!IsEqualTo(value.substr(0, kUnit.size()), kUnit, false)) return {};
    value.remove_prefix(kUnit.size());
    const std::size_t dash = value.find('-');
    const std::size_t slash = value.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return {};
    const auto first = ParseUint64(value.substr(0, dash));
    const auto last = ParseUint64(value.substr(dash + 1, slash - dash - 1));
    if (!first || !last || *last < *first || *last == UINT64_MAX) return {};
    HttpContentRange range{*first, *last, {}};
    const std::string_view sizeText = value.substr(slash + 1);
    if (sizeText == "*") return range;
    range.size = ParseUint64(sizeText);
    if (!range.size || *range.size <= range.last) return {};
    return range;
}

HttpAnswerSink::HttpAnswerSink(const HttpMessage& request, HttpMessage& answer)
    : request_(request), answer_(answer) {
    auto* file = dynamic_cast<HttpFileMessage*>(&answer);
    if (file != nullptr && !file->GetBodyFile().empty() && request.GetMethod() == HttpMethod::Get)
        file_ = file;
    answer_.SetStatus(0);
    answer_.ClearHeaders();
    answer_.SetBody({}, {});
}

void HttpAnswerSink::OnStatus(unsigned int status) {
    answer_.SetStatus(status);
    answer_.ClearHeaders();
    headersWhole_ = false;
    length_.reset();
}

void HttpAnswerSink::OnHeader(const KelString& name, std::string_view value) {
    if (name == "content-length") length_ = ParseUint64(value);
    answer_.SetHeader(name, KelString(value));
}

bool HttpAnswerSink::OnBody(std::string_view data) {
    if (result_ != 0 || !Begin()) return false;
    received_ += data.size();
    if (toFile_) return Append(data);
    if (file_ != nullptr) {
        // The body of an error is of no use, but a short one is read so that the connection can be kept.
        enough_ = received_ > kMaxDiscarded;
        return !enough_;
    }
    if (received_ > answer_.GetBodyLimit())
        return Fail(kHttpBadAnswer,
                    "the answer is larger than " + std::to_string(answer_.GetBodyLimit()) + " bytes");
    // Begin has checked the announced length against the limit.
    if (body_.empty() && length_) body_.reserve(*length_);
    body_.append(data);
    return true;
}

bool HttpAnswerSink::Begin() {
    if (begun_) return true;
    begun_ = true;
    if (file_ != nullptr) return BeginFile();
    if (request_.GetMethod() == HttpMethod::Head || !length_ || *length_ <= answer_.GetBodyLimit())
        return true;
    return Fail(kHttpBadAnswer, "the answer announces " + std::to_string(*length_) + " bytes, too large");
}

bool HttpAnswerSink::BeginFile() {
    if (answer_.GetStatus() == kHttpStatusPartialContent) {
        if (!CheckRange()) return false;
        offset_ = request_.GetRangeStart();
    } else if (answer_.GetStatus() == kHttpStatusOk) {
        size_ = length_;
    } else {
        return true;
    }
    const std::uint64_t expected = file_->GetSizeLimit();
    if (expected != 0 && ((size_ && *size_ > expected) || (end_ && *end_ > expected)))
        return Fail(kHttpBadAnswer,
                    "the resource is larger than the announced " + std::to_string(expected) + " bytes");
    return OpenFile();
}

bool HttpAnswerSink::CheckRange() {
    const KelString text = answer_.GetHeader("content-range");
    const auto range = ParseContentRange(text);
    if (!range || range->first != request_.GetRangeStart())
        return Fail(kHttpBadAnswer, "asked for the bytes from " + std::to_string(request_.GetRangeStart()) +
                                        " on, the answer has Content-Range \"" + text + "\"");
    if (length_ && *length_ != range->last - range->first + 1)
        return Fail(kHttpBadAnswer, "Content-Length and Content-Range \"" + text + "\" disagree");
    const KelString etag = answer_.GetHeader("etag");
    if (!request_.GetIfRange().empty() && !etag.empty() && etag != request_.GetIfRange())
        return Fail(kHttpBadAnswer, "a part of another version came: " + etag);
    end_ = range->last + 1;
    size_ = range->size;
    return true;
}

bool HttpAnswerSink::OpenFile() {
    fd_.Reset(open(file_->GetBodyFile().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd_) return FailLocal("open");
    struct stat status {};
    if (fstat(fd_.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return FailLocal("use");
    if (static_cast<std::uint64_t>(status.st_size) < offset_)
        return Fail(kHttpLocalFile, file_->GetBodyFile() + " is shorter than the requested offset");
    // Bytes of an earlier attempt may stand behind the offset.
    if (ftruncate(fd_.Get(), static_cast<off_t>(offset_)) != 0) return FailLocal("truncate");
    toFile_ = true;
    return true;
}

bool HttpAnswerSink::Append(std::string_view data) {
    const std::uint64_t expected = file_->GetSizeLimit();
    const std::uint64_t after = offset_ + data.size();
    if ((expected != 0 && after > expected) || (end_ && after > *end_))
        return Fail(kHttpBadAnswer, "more bytes came than were announced");
    while (!data.empty()) {
        const ssize_t written = pwrite(fd_.Get(), data.data(), data.size(), static_cast<off_t>(offset_));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return FailLocal("write");
        offset_ += static_cast<std::uint64_t>(written);
        KelTransfers(KelDirection::Down, KelFlow::In, KelTransport::Http)
            .bytes.Add(static_cast<std::uint64_t>(written));
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

unsigned int HttpAnswerSink::Finish(bool whole) {
    // A whole answer without a body still has to cut the file to nothing.
    if (whole && result_ == 0) Begin();
    if (toFile_) {
        if (!SyncFile() && result_ == 0) FailLocal("sync");
        fd_.Reset();
    } else if (file_ == nullptr) {
        answer_.SetBody(std::move(body_), answer_.GetHeader("content-type"));
    }
    if (whole && result_ == 0) result_ = Complete();
    if (result_ == kHttpCutOff && errorText_.empty()) errorText_ = "the answer ended before the resource did";
    return result_;
}

unsigned int HttpAnswerSink::Complete() const {
    if (!toFile_) return kHttpCompleted;
    if (end_ && offset_ != *end_) return kHttpCutOff;
    if (size_ && offset_ != *size_) return kHttpCutOff;
    // Without any length on the wire only the announced size distinguishes the end from a lost connection.
    const bool lengthKnown = length_ || !answer_.GetHeader("transfer-encoding").empty();
    return !lengthKnown && offset_ < file_->GetExpectedSize() ? kHttpCutOff : kHttpCompleted;
}

bool HttpAnswerSink::SyncFile() {
    if (fsync(fd_.Get()) != 0) return false;
    KelString folder;
    KelString name;
    SplitPath(file_->GetBodyFile(), folder, name);
    const UniqueFd folderFd(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folderFd && fsync(folderFd.Get()) == 0;
}

bool HttpAnswerSink::Fail(unsigned int result, KelString text) {
    result_ = result;
    errorText_ = std::move(text);
    return false;
}

bool HttpAnswerSink::FailLocal(const char* what) {
    const bool isFull = errno == ENOSPC || errno == EDQUOT;
    const KelString reason = std::strerror(errno);
    return Fail(isFull ? kHttpDiskFull : kHttpLocalFile,
                KelString("cannot ") + what + " " + file_->GetBodyFile() + ": " + reason);
}

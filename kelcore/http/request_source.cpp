#include "kelcore/http/request_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "kelcore/metrics/transfer_counters.h"

HttpRequestSource::HttpRequestSource(const HttpMessage& request) : request_(request) {
    const auto* file = dynamic_cast<const HttpFileMessage*>(&request);
    if (file == nullptr) return;
    path_ = file->GetBodyFile();
    first_ = offset_ = file->GetBodyOffset();
    progress_ = file->GetProgress();
}

bool HttpRequestSource::Open() {
    size_ = request_.GetBody().size();
    if (path_.empty()) return true;
    fd_.Reset(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!fd_ || fstat(fd_.Get(), &status) != 0) {
        errorText_ = "cannot open " + path_ + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errorText_ = path_ + " is no file";
        return false;
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    if (first_ == 0 || first_ < size_) return true;
    errorText_ = path_ + " has become shorter than what was sent of it";
    return false;
}

KelString HttpRequestSource::ContentRange() const {
    if (first_ == 0) return {};
    return "bytes " + std::to_string(first_) + "-" + std::to_string(size_ - 1) + "/" + std::to_string(size_);
}

std::optional<std::size_t> HttpRequestSource::Read(std::span<char> buffer) {
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size_ - offset_));
    if (wanted == 0) return 0;
    if (path_.empty()) {
        std::memcpy(buffer.data(), request_.GetBody().data() + offset_, wanted);
        offset_ += wanted;
        return wanted;
    }
    ssize_t got = -1;
    do
        got = pread(fd_.Get(), buffer.data(), wanted, static_cast<off_t>(offset_));
    while (got < 0 && errno == EINTR);
    if (got <= 0) {
        errorText_ = got < 0 ? "cannot read " + path_ + ": " + std::strerror(errno)
                             : path_ + " became shorter while it was sent";
        return {};
    }
    offset_ += static_cast<std::uint64_t>(got);
    if (progress_ != nullptr) *progress_ = offset_;
    KelTransfers(KelDirection::Up, KelFlow::Out, KelTransport::Http)
        .bytes.Add(static_cast<std::uint64_t>(got));
    return static_cast<std::size_t>(got);
}

bool HttpRequestSource::Seek(std::uint64_t offset) {
    if (offset > Size()) return false;
    offset_ = first_ + offset;
    return true;
}

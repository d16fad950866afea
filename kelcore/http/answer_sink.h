#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "kelcore/http/message.h"

/// The value of a Content-Range header: bytes first to last of `size` (RFC 9110, 14.4).
struct HttpContentRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::optional<std::uint64_t> size;  ///< none: "*", unknown
};

/// Parses "bytes first-last/size"; nothing for anything else, an empty or impossible range included.
std::optional<HttpContentRange> ParseContentRange(std::string_view value);

/// Takes the body of one answer into memory or into the answer's body file, and checks it against what was
/// asked for and announced. The file is not touched before the first byte of an acceptable body came. One
/// thread at a time; results are those of HttpClient.
class HttpAnswerSink {
  public:
    HttpAnswerSink(const HttpMessage& request, HttpMessage& answer);

    /// A new status line: forgets the headers of the answer before.
    void OnStatus(unsigned int status);
    void OnHeader(const KelString& name, std::string_view value);
    void OnHeadersEnd() { headersWhole_ = true; }

    /// False when the exchange must stop; Result() says why.
    bool OnBody(std::string_view data);

    /// The answer is whole (`whole`) or was cut off: puts what came on the disk and gives the final result.
    unsigned int Finish(bool whole);

    unsigned int Result() const { return result_; }
    const KelString& ErrorText() const { return errorText_; }

    /// True once the headers of an answer that carries what was asked for are whole.
    bool IsBegun() const {
        return headersWhole_ && answer_.GetStatus() >= kHttpStatusOk && answer_.GetStatus() < 300;
    }
    bool HasHeaders() const { return headersWhole_; }
    /// True when an error's body was cut short on purpose: its status is all that counts.
    bool IsEnough() const { return enough_; }

  private:
    bool Begin();
    bool BeginFile();
    bool CheckRange();
    bool OpenFile();
    bool Append(std::string_view data);
    bool SyncFile();
    unsigned int Complete() const;
    bool Fail(unsigned int result, KelString text);
    bool FailLocal(const char* what);

    const HttpMessage& request_;
    HttpMessage& answer_;
    HttpFileMessage* file_ = nullptr;  ///< the answer, when its body goes to a file
    unsigned int result_ = 0;
    KelString errorText_;
    bool headersWhole_ = false;
    bool begun_ = false;
    bool enough_ = false;
    bool toFile_ = false;
    KelString body_;
    UniqueFd fd_;
    std::uint64_t offset_ = 0;             ///< where the next byte goes
    std::optional<std::uint64_t> length_;  ///< Content-Length
    std::optional<std::uint64_t> end_;     ///< the body of a range ends here
    std::optional<std::uint64_t> size_;    ///< of the whole resource, as this answer says
    std::uint64_t received_ = 0;
};

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "kel/types.h"

// Status codes of answers (RFC 9110, 15) that the client treats differently.
inline constexpr unsigned int kHttpStatusOk = 200;
inline constexpr unsigned int kHttpStatusPartialContent = 206;
inline constexpr unsigned int kHttpStatusUnauthorized = 401;
inline constexpr unsigned int kHttpStatusNotFound = 404;
inline constexpr unsigned int kHttpStatusRangeNotSatisfiable = 416;
inline constexpr unsigned int kHttpStatusUnavailable = 503;

enum class HttpMethod { Get, Head, Post, Put };

/// An HTTP request or answer (RFC 9110). A plain value: one thread at a time.
class HttpMessage {
  public:
    HttpMessage() = default;
    virtual ~HttpMessage() = default;
    HttpMessage(const HttpMessage&) = default;
    HttpMessage& operator=(const HttpMessage&) = default;
    HttpMessage(HttpMessage&&) = default;
    HttpMessage& operator=(HttpMessage&&) = default;

    void SetMethod(HttpMethod method) { method_ = method; }
    HttpMethod GetMethod() const { return method_; }

    /// The path of the resource, raw; it is percent-encoded on the wire only.
    void SetResourcePath(const KelString& path) { resourcePath_ = path; }
    const KelString& GetResourcePath() const { return resourcePath_; }

    /// Asks for the bytes from `offset` on (Range: bytes=offset-); 0 asks for all.
    void SetRangeStart(std::uint64_t offset) { rangeStart_ = offset; }
    std::uint64_t GetRangeStart() const { return rangeStart_; }

    /// The validator (ETag) that the partial content on hand came with: sent as If-Range, so that a changed
    /// resource is sent whole. Empty: none known.
    void SetIfRange(const KelString& etag) { ifRange_ = etag; }
    const KelString& GetIfRange() const { return ifRange_; }

    /// A body held in memory.
    void SetBody(KelString body, const KelString& contentType) {
        body_ = std::move(body);
        contentType_ = contentType;
    }
    const KelString& GetBody() const { return body_; }
    KelString TakeBody() { return std::move(body_); }
    const KelString& GetContentType() const { return contentType_; }

    /// The largest answer body accepted in memory, in bytes.
    void SetBodyLimit(std::uint64_t bytes) { bodyLimit_ = bytes; }
    std::uint64_t GetBodyLimit() const { return bodyLimit_; }

    // Answers; of a request only the header "kel-caller", who makes it, is sent.
    void SetStatus(unsigned int status) { status_ = status; }
    unsigned int GetStatus() const { return status_; }
    void ClearHeaders() { headers_.clear(); }
    void SetHeader(const KelString& name, const KelString& value) { headers_[name] = value; }
    /// `name` in lower case; empty when the answer has no such header.
    KelString GetHeader(const KelString& name) const {
        const auto found = headers_.find(name);
        return found == headers_.end() ? KelString() : found->second;
    }

  private:
    HttpMethod method_ = HttpMethod::Get;
    KelString resourcePath_ = "/";
    std::uint64_t rangeStart_ = 0;
    KelString ifRange_;
    KelString body_;
    KelString contentType_;
    std::uint64_t bodyLimit_ = std::uint64_t{64} << 20;
    unsigned int status_ = 0;
    KelHash<KelString, KelString> headers_;
};

/// A message whose body is a local file. As the answer of a GET, the body is written to the file: from the
/// offset the request asked for when the server answered 206, from the start (cutting off what was there)
/// when it answered 200; any other status leaves the file alone. The written file and its folder are synced
/// before the exchange counts as completed. As a PUT request, the file is the body that is sent.
class HttpFileMessage : public HttpMessage {
  public:
    void SetBodyFile(const KelString& path) { bodyFile_ = path; }
    const KelString& GetBodyFile() const { return bodyFile_; }

    /// As a PUT request, sends only the bytes of the file from `offset` on (Content-Range, RFC 9110, 14.5),
    /// which must not be its end. The server must have said that it holds those before.
    void SetBodyOffset(std::uint64_t offset) { bodyOffset_ = offset; }
    std::uint64_t GetBodyOffset() const { return bodyOffset_; }

    /// As a PUT request, has the position in the file noted up to which it was handed to the connection.
    void SetProgress(std::shared_ptr<std::atomic<std::uint64_t>> position) {
        progress_ = std::move(position);
    }
    std::atomic<std::uint64_t>* GetProgress() const { return progress_.get(); }

    /// The size of the whole resource in bytes as it was announced, 0 when unknown; an answer that would make
    /// the file larger is cut off with kHttpBadAnswer.
    void SetExpectedSize(std::uint64_t bytes) { expectedSize_ = bytes; }
    std::uint64_t GetExpectedSize() const { return expectedSize_; }

    /// The largest size in bytes that is accepted while the size is not known; 0: any.
    void SetSizeLimit(std::uint64_t bytes) { sizeLimit_ = bytes; }
    std::uint64_t GetSizeLimit() const { return expectedSize_ != 0 ? expectedSize_ : sizeLimit_; }

  private:
    KelString bodyFile_;
    std::uint64_t bodyOffset_ = 0;
    std::shared_ptr<std::atomic<std::uint64_t>> progress_;
    std::uint64_t expectedSize_ = 0;
    std::uint64_t sizeLimit_ = 0;
};

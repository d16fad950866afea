#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "kelcore/http/message.h"

/// The body of one request, from memory or from the request's body file. Lives no longer than the request.
/// One thread at a time.
class HttpRequestSource {
  public:
    explicit HttpRequestSource(const HttpMessage& request);

    /// Opens the body file, if any; false when it cannot be read.
    bool Open();

    /// The size of the body in bytes, fixed by Open.
    std::uint64_t Size() const { return size_ - first_; }

    /// The value of the header Content-Range; empty for a body that is a whole file.
    KelString ContentRange() const;

    /// The next bytes into `buffer`; 0 at the end, nothing when the file cannot be read or has become
    /// shorter.
    std::optional<std::size_t> Read(std::span<char> buffer);

    /// Goes to `offset` of the body for the next Read; false beyond the end.
    bool Seek(std::uint64_t offset);

    bool IsAtEnd() const { return offset_ == size_; }

    const KelString& ErrorText() const { return errorText_; }

  private:
    const HttpMessage& request_;
    KelString path_;  ///< of the body file, empty: the body is in memory
    UniqueFd fd_;
    std::atomic<std::uint64_t>* progress_ = nullptr;  ///< of the request
    std::uint64_t first_ = 0;                         ///< of the body in the file
    std::uint64_t size_ = 0;                          ///< of the file or the body in memory
    std::uint64_t offset_ = 0;                        ///< in the same
    KelString errorText_;
};

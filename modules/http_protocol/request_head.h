#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "kel/types.h"

namespace kelhttp {

enum class Method : unsigned char { Get, Head, Post, Put, Other };

/// The head of an HTTP/1.0 or 1.1 request (RFC 9112). Its texts refer to the parsed buffer.
struct RequestHead {
    Method method = Method::Other;
    std::string_view methodName;
    std::string_view target;
    bool version11 = false;
    bool keepAlive = false;
    bool expectContinue = false;
    bool chunked = false;  ///< a Transfer-Encoding is present
    std::optional<std::uint64_t> contentLength;

    /// The value of a header field, `name` in any case; empty when it is absent. Of a repeated field the
    /// first.
    std::string_view Field(std::string_view name) const;

    struct NamedField {
        std::string_view name;
        std::string_view value;
    };
    std::vector<NamedField> fields;
};

/// The length of the head at the start of `input`, its empty line included; npos when it is not complete.
/// Lines end in CR LF; a bare LF is accepted too. The first `searched` bytes are known not to begin the end.
std::size_t FindHeadEnd(std::string_view input, std::size_t searched = 0);

/// Parses a complete head. 0, or the HTTP status that answers it: 400 malformed (no Host in HTTP/1.1, folded
/// lines, blanks before a colon, control characters, differing lengths, a length beside a transfer encoding),
/// 417 an expectation other than 100-continue, 505 another version.
unsigned int ParseRequestHead(std::string_view head, RequestHead& request);

}  // namespace kelhttp

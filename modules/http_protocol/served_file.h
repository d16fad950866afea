#pragma once

#include <cstdint>
#include <string_view>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "kelcore/file_lease.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/request_head.h"

namespace kelhttp {

/// The part of a file that a Range field (RFC 9110, section 14) asks for.
struct ByteRange {
    enum class Kind : unsigned char { Whole, Part, Unsatisfiable };
    Kind kind = Kind::Whole;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;  ///< of a part; at least 1
};

/// Parses a single byte range of a file of `size` bytes. Another unit, several ranges and malformed text
/// count as no range: the whole file is meant.
ByteRange ParseByteRange(std::string_view field, std::uint64_t size);

/// The answer to a GET or HEAD of a file (RFC 9110): status, header lines and the part of the file to send.
struct ServedFile {
    unsigned int status = 404;
    KelString headers;   ///< lines with their ends; Content-Length included
    UniqueFd fd;         ///< invalid when there is no body to send
    KelFileLease lease;  ///< of the file that is sent
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// Opens the file that the request names beneath the alias, regular files only, and evaluates ranges (Range,
/// If-Range) and conditions (If-None-Match). 200, 206, 304, 404 or 416. Any thread.
ServedFile OpenServedFile(const AliasMatch& place, const RequestHead& request);

}  // namespace kelhttp

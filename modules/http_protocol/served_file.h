#pragma once

#include <cstdint>

#include "kel/types.h"
#include "kel/unique_fd.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/request_head.h"

namespace kelhttp {

/// The answer to a GET or HEAD of a file (RFC 9110): status, header lines and the part of the file to send.
struct ServedFile {
    unsigned int status = 404;
    KelString headers;  ///< lines with their ends; Content-Length included
    UniqueFd fd;        ///< invalid when there is no body to send
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// Opens what the request names beneath the alias, regular files only, and works out ranges (Range, If-Range)
/// and conditions (If-None-Match). 200, 206, 304, 404 or 416. Any thread.
ServedFile OpenServedFile(const AliasMatch& place, const RequestHead& request);

}  // namespace kelhttp

#pragma once

#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// The head of an answer (RFC 9112): status line, Date, `headers` (complete lines) and the empty line.
/// `connection`: the value of the field Connection, empty for none. Any thread.
KelString MakeResponseHead(unsigned int status, std::string_view headers, std::string_view connection);

/// The reason phrase of a status.
std::string_view ReasonOf(unsigned int status);

}  // namespace kelhttp

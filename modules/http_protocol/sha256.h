#pragma once

#include <initializer_list>
#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// SHA-256 (FIPS 180-4) of the pieces one after the other, as 64 lower-case hexadecimal digits. Any thread;
/// fast for short texts.
KelString Sha256Hex(std::initializer_list<std::string_view> pieces);

/// HMAC with SHA-256 (RFC 2104), as hexadecimal digits.
KelString HmacSha256Hex(std::string_view key, std::string_view text);

}  // namespace kelhttp

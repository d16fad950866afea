#pragma once

#include <optional>
#include <string_view>

#include "kel/types.h"

/// `bytes` in base64 with padding (RFC 4648, section 4), without line breaks.
KelString Base64Encode(std::string_view bytes);

/// The bytes of a base64 text with padding; nothing when it has any other character, length or trailing bits.
std::optional<KelString> Base64Decode(std::string_view text);

#pragma once

#include <optional>
#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// The path of a request target (RFC 9112, origin or absolute form) percent-decoded, its query cut off:
/// "/a/b". Nothing when it is not the path of a resource: an empty element, "." or "..", a control character,
/// a zero byte, a backslash, an escaped "/" or a malformed escape. Bytes beyond ASCII are kept as they are.
std::optional<KelString> DecodeRequestPath(std::string_view target);

}  // namespace kelhttp

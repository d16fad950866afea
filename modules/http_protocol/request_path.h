#pragma once

#include <optional>
#include <string_view>

#include "kel/types.h"

namespace kelhttp {

/// The path of a request target (RFC 9112, origin or absolute form) percent-decoded, its query cut off:
/// "/a/b". Nothing when it is no path to a resource: an empty element, "." or "..", a control character, a
/// zero byte, a backslash, an escaped "/" or a malformed escape. Bytes beyond ASCII stand for themselves.
std::optional<KelString> DecodeRequestPath(std::string_view target);

/// False for what is never served nor written wherever it lies: the server's own unfinished uploads.
bool IsServableName(std::string_view path);

/// What the names of unfinished uploads begin with.
inline constexpr std::string_view kUploadPrefix = ".kel-upload-";

}  // namespace kelhttp

#pragma once

#include <string_view>

/// Begins the names of the files in which the HTTP server keeps what has come of interrupted uploads, in the
/// folders of their destinations.
inline constexpr std::string_view kPartFilePrefix = ".kel-part-";

#pragma once

#include <cstdint>
#include <string_view>

namespace kelhttp {

/// What a Range field (RFC 9110, section 14) asks of a file.
struct ByteRange {
    enum class Kind : unsigned char { Whole, Part, Unsatisfiable };
    Kind kind = Kind::Whole;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;  ///< of a part; at least 1
};

/// A single byte range of a file of `size` bytes. Another unit, several ranges and malformed text count as no
/// range: the whole file is meant.
ByteRange ParseByteRange(std::string_view field, std::uint64_t size);

}  // namespace kelhttp

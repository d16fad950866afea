// Range fields against files of any size: a part must lie within its file.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "modules/http_protocol/served_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint64_t fileSize = 0;
    if (size < sizeof fileSize) return 0;
    std::memcpy(&fileSize, data, sizeof fileSize);
    const std::string_view field(reinterpret_cast<const char*>(data) + sizeof fileSize,
                                 size - sizeof fileSize);
    const kelhttp::ByteRange range = kelhttp::ParseByteRange(field, fileSize);
    if (range.kind != kelhttp::ByteRange::Kind::Part) return 0;
    if (range.length == 0 || range.offset >= fileSize || range.length > fileSize - range.offset) std::abort();
    return 0;
}

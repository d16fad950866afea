#include "modules/http_protocol/byte_range.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "kel/text.h"

namespace kelhttp {
namespace {

/// A run of digits; one too large for 64 bits is as good as the largest number.
std::optional<std::uint64_t> ParsePosition(std::string_view digits) {
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return ParseUint64(digits).value_or(std::numeric_limits<std::uint64_t>::max());
}

}  // namespace

ByteRange ParseByteRange(std::string_view field, std::uint64_t size) {
    constexpr std::string_view kUnit = "bytes=";
    if (field.size() < kUnit.size() || !IsEqualTo(field.substr(0, kUnit.size()), kUnit, false)) return {};
    const KelString range = Trim(field.substr(kUnit.size()));
    const std::size_t hyphen = range.find('-');
    if (hyphen == KelString::npos || range.find(',') != KelString::npos) return {};
    const std::string_view firstText = std::string_view(range).substr(0, hyphen);
    const std::string_view lastText = std::string_view(range).substr(hyphen + 1);

    const ByteRange unsatisfiable{ByteRange::Kind::Unsatisfiable, 0, 0};
    if (firstText.empty()) {
        const std::optional<std::uint64_t> suffix = ParsePosition(lastText);
        if (!suffix) return {};
        if (*suffix == 0 || size == 0) return unsatisfiable;
        const std::uint64_t length = std::min(*suffix, size);
        return {ByteRange::Kind::Part, size - length, length};
    }
    const std::optional<std::uint64_t> first = ParsePosition(firstText);
    const std::optional<std::uint64_t> last =
        lastText.empty() ? std::numeric_limits<std::uint64_t>::max() : ParsePosition(lastText);
    if (!first || !last || *last < *first) return {};
    if (*first >= size) return unsatisfiable;
    return {ByteRange::Kind::Part, *first, std::min(*last, size - 1) - *first + 1};
}

}  // namespace kelhttp

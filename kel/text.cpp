#include "kel/text.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

char ToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

template <class Number>
std::optional<Number> ParseNumber(std::string_view text) {
    Number number = 0;
    const char* end = text.data() + text.size();
    // Takes neither blanks nor "+", and checks the range.
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
    return number;
}

/// Length of the well-formed UTF-8 sequence (RFC 3629) that `text` begins with, 0 when it is ill-formed.
std::size_t Utf8SequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90)) return 0;  // overlong
    if ((lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F)) return 0;  // surrogate, too large
    return length;
}

}  // namespace

bool IsEqualTo(std::string_view left, std::string_view right, bool caseSensitive) {
    if (caseSensitive) return left == right;
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return ToLower(a) == ToLower(b); });
}

KelString ToLowerText(std::string_view text) {
    KelString lower(text);
    for (char& c : lower)
        c = ToLower(c);
    return lower;
}

KelString Trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return KelString(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

KelString ReplaceAll(std::string_view text, std::string_view from, std::string_view to) {
    if (from.empty()) return KelString(text);
    KelString result;
    result.reserve(text.size());
    for (;;) {
        const std::size_t found = text.find(from);
        result += text.substr(0, found);
        if (found == std::string_view::npos) return result;
        result += to;
        text.remove_prefix(found + from.size());
    }
}

KelString DoubleQuotes(std::string_view text) {
    return ReplaceAll(text, "'", "''");
}

std::optional<std::int64_t> ParseInt64(std::string_view text) {
    return ParseNumber<std::int64_t>(text);
}

std::optional<std::uint64_t> ParseUint64(std::string_view text) {
    return ParseNumber<std::uint64_t>(text);
}

KelString HexText(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    KelString text(2 * bytes.size(), '0');
    auto digit = text.begin();
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        *digit++ = kDigits[byte >> 4];
        *digit++ = kDigits[byte & 0xF];
    }
    return text;
}

KelVector<KelString> SplitText(std::string_view text, char separator) {
    KelVector<KelString> pieces;
    for (;;) {
        const std::size_t end = text.find(separator);
        pieces.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) return pieces;
        text.remove_prefix(end + 1);
    }
}

bool HasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

std::size_t FindIllFormedUtf8(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t length = Utf8SequenceLength(text.substr(at));
        if (length == 0) return at;
        at += length;
    }
    return std::string_view::npos;
}

StringTokeniser::StringTokeniser(const KelString& text, char separator)
    : tokens_(SplitText(text, separator)) {}

bool StringTokeniser::GetNextToken(KelString& token) {
    if (next_ == tokens_.size()) return false;
    token = tokens_[next_++];
    return true;
}

KelString StringTokeniser::GetToken(std::size_t index) const {
    return index < tokens_.size() ? tokens_[index] : KelString();
}

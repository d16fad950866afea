#include "kel/base64.h"

#include <array>
#include <cstdint>

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> kDigits = [] {
    std::array<std::uint8_t, 256> digits{};
    digits.fill(kNoDigit);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i)
        digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    return digits;
}();

std::uint32_t ByteAt(std::string_view bytes, std::size_t index) {
    return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0;
}

}  // namespace

KelString Base64Encode(std::string_view bytes) {
    KelString text((bytes.size() + 2) / 3 * 4, '=');
    char* next = text.data();
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::uint32_t group = ByteAt(bytes, i) << 16 | ByteAt(bytes, i + 1) << 8 | ByteAt(bytes, i + 2);
        next[0] = kAlphabet[group >> 18];
        next[1] = kAlphabet[group >> 12 & 63];
        if (i + 1 < bytes.size()) next[2] = kAlphabet[group >> 6 & 63];
        if (i + 2 < bytes.size()) next[3] = kAlphabet[group & 63];
        next += 4;
    }
    return text;
}

std::optional<KelString> Base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i)
        text.remove_suffix(1);
    KelString bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t pending = 0;
    unsigned bits = 0;
    for (const char c : text) {
        const std::uint8_t digit = kDigits[static_cast<unsigned char>(c)];
        if (digit == kNoDigit) return std::nullopt;
        pending = pending << 6 | digit;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes += static_cast<char>(pending >> bits & 0xFF);
    }
    if (bits >= 6 || (pending & ((1U << bits) - 1)) != 0) return std::nullopt;
    return bytes;
}

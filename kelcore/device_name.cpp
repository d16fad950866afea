#include "kelcore/device_name.h"

#include <algorithm>

#include "kel/checksum.h"
#include "kel/text.h"

namespace {

constexpr std::size_t kGuidLength = 36;
constexpr std::size_t kMacLength = 17;
constexpr std::size_t kMaxHostBytes = 253;
constexpr std::size_t kMaxPortDigits = 5;
constexpr std::size_t kMaxMacBytes = 32;
constexpr std::size_t kPathNameParts = 5;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsHyphenPosition(std::size_t index) {
    return index == 8 || index == 13 || index == 18 || index == 23;
}

bool IsUpperHexDigit(char c) {
    return IsDigit(c) || (c >= 'A' && c <= 'F');
}

bool IsHostCharacter(char c) {
    return IsDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.' || c == '_' || c == '-';
}

bool IsMacCharacter(char c) {
    return IsUpperHexDigit(c) || (c >= 'a' && c <= 'f') || c == '-';
}

bool IsAddressCharacter(char c) {
    return IsDigit(c) || c == '.';
}

/// True for 1 to `most` characters, each of which `isAllowed` accepts.
bool ConsistsOf(std::string_view text, std::size_t most, bool (*isAllowed)(char)) {
    return !text.empty() && text.size() <= most && std::all_of(text.begin(), text.end(), isAllowed);
}

}  // namespace

bool IsGuid(std::string_view text) {
    if (text.size() != kGuidLength) return false;
    for (std::size_t i = 0; i < kGuidLength; ++i) {
        if (IsHyphenPosition(i) ? text[i] != '-' : !IsUpperHexDigit(text[i])) return false;
    }
    return true;
}

KelString MakeGuid() {
    KelString guid;
    for (const char digit : HexText(RandomBytes(16))) {
        if (IsHyphenPosition(guid.size())) guid += '-';
        guid += (digit >= 'a' && digit <= 'f') ? static_cast<char>(digit - 'a' + 'A') : digit;
    }
    return guid;
}

bool IsHostName(std::string_view text) {
    return ConsistsOf(text, kMaxHostBytes, IsHostCharacter);
}

bool IsMacAddress(std::string_view text) {
    if (text.size() != kMacLength) return false;
    for (std::size_t i = 0; i < kMacLength; ++i) {
        if (i % 3 == 2 ? text[i] != '-' : !IsUpperHexDigit(text[i])) return false;
    }
    return true;
}

bool IsHostAndPort(std::string_view text) {
    const std::size_t colon = text.find(':');
    return colon != std::string_view::npos && IsHostName(text.substr(0, colon)) &&
           ConsistsOf(text.substr(colon + 1), kMaxPortDigits, IsDigit);
}

bool IsDeviceUrl(std::string_view text) {
    const std::size_t slash = text.find('/');
    return slash != std::string_view::npos && IsHostAndPort(text.substr(0, slash)) &&
           IsGuid(text.substr(slash + 1));
}

std::string_view GuidOfDevice(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return IsGuid(text) ? text : std::string_view();
    const std::string_view guid = text.substr(slash + 1);
    return slash > 0 && IsValidUtf8(text.substr(0, slash)) && IsGuid(guid) ? guid : std::string_view();
}

std::optional<DevicePathName> SplitDevicePathName(std::string_view text) {
    const KelVector<KelString> parts = SplitText(text.substr(0, FindIllFormedUtf8(text)), '/');
    if (parts.size() < kPathNameParts || std::any_of(parts.begin(), parts.begin() + kPathNameParts,
                                                     [](const KelString& part) { return part.empty(); }))
        return std::nullopt;
    const std::size_t colon = parts[0].find(':');
    return DevicePathName{parts[0],
                          parts[0].substr(0, colon),
                          colon == KelString::npos ? KelString() : parts[0].substr(colon + 1),
                          parts[1],
                          parts[2],
                          parts[3],
                          parts[4]};
}

std::optional<DevicePathName> ParseDevicePathName(std::string_view text) {
    if (std::count(text.begin(), text.end(), '/') != kPathNameParts - 1) return std::nullopt;
    auto parts = SplitDevicePathName(text);
    const bool isWellFormed = parts && IsHostAndPort(parts->address) && IsGuid(parts->guid) &&
                              ConsistsOf(parts->macAddress, kMaxMacBytes, IsMacCharacter) &&
                              ConsistsOf(parts->ipAddress, text.size(), IsAddressCharacter) &&
                              ConsistsOf(parts->networkMask, text.size(), IsAddressCharacter) &&
                              IsValidUtf8(text);
    return isWellFormed ? parts : std::nullopt;
}

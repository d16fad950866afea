#include "kelcore/http/url.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "kel/ip_address.h"
#include "kel/text.h"

namespace {

constexpr std::size_t kMaxHostBytes = 253;
constexpr std::size_t kMaxLabelBytes = 63;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsAlphanumeric(char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsUnreserved(char c) {
    return IsAlphanumeric(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool IsSubDelimiter(char c) {
    return std::string_view("!$&'()*+,;=").find(c) != std::string_view::npos;
}

/// The characters that user information and paths share (RFC 3986, 3.2.1 and 3.3).
bool IsPlain(char c) {
    return IsUnreserved(c) || IsSubDelimiter(c) || c == ':' || c == '%';
}

int HexValue(char c) {
    if (IsDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool Decode(std::string_view encoded, KelString& text) {
    KelString decoded;
    decoded.reserve(encoded.size());
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            decoded += encoded[i];
            continue;
        }
        if (encoded.size() - i < 3) return false;
        const int high = HexValue(encoded[i + 1]);
        const int low = HexValue(encoded[i + 2]);
        if (high < 0 || low < 0 || high + low == 0) return false;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    text = std::move(decoded);
    return true;
}

KelString Encode(std::string_view text, std::string_view alsoPlain) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    KelString encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        if (IsUnreserved(c) || alsoPlain.find(c) != std::string_view::npos) {
            encoded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        encoded += '%';
        encoded += kDigits[byte >> 4];
        encoded += kDigits[byte & 15];
    }
    return encoded;
}

/// Decodes a part in which only plain characters, `extra` and escapes of printable bytes may stand.
bool DecodePart(std::string_view part, std::string_view extra, KelString& text) {
    const bool plain = std::all_of(part.begin(), part.end(), [extra](char c) {
        return IsPlain(c) || extra.find(c) != std::string_view::npos;
    });
    return plain && Decode(part, text) && !HasControlCharacter(text);
}

bool IsHostLabel(std::string_view label) {
    if (label.empty() || label.size() > kMaxLabelBytes) return false;
    if (label.front() == '-' || label.back() == '-') return false;
    return std::all_of(label.begin(), label.end(),
                       [](char c) { return IsAlphanumeric(c) || c == '-' || c == '_'; });
}

bool IsHost(std::string_view host) {
    if (host.empty() || host.size() > kMaxHostBytes) return false;
    const bool numeric = std::all_of(host.begin(), host.end(), [](char c) { return IsDigit(c) || c == '.'; });
    if (numeric) return IpAddress::Parse(host).has_value();
    const KelVector<KelString> labels = SplitText(host, '.');
    return std::all_of(labels.begin(), labels.end(),
                       [](const KelString& label) { return IsHostLabel(label); });
}

std::optional<std::uint16_t> ParsePort(std::string_view text) {
    if (text.empty() || text.size() > 5 || !std::all_of(text.begin(), text.end(), IsDigit)) return {};
    const auto port = ParseUint64(text);
    if (!port || *port == 0 || *port > 0xFFFF) return {};
    return static_cast<std::uint16_t>(*port);
}

bool ParseUserInfo(std::string_view userInfo, UrlInet& url) {
    const std::size_t colon = userInfo.find(':');
    if (colon == std::string_view::npos) return false;
    return DecodePart(userInfo.substr(0, colon), "", url.user) &&
           DecodePart(userInfo.substr(colon + 1), "", url.password);
}

bool ParseAuthority(std::string_view authority, UrlInet& url) {
    const std::size_t at = authority.find('@');
    if (at != std::string_view::npos) {
        if (!ParseUserInfo(authority.substr(0, at), url)) return false;
        authority.remove_prefix(at + 1);
    }
    const std::size_t colon = authority.find(':');
    if (colon != std::string_view::npos) {
        const auto port = ParsePort(authority.substr(colon + 1));
        if (!port) return false;
        url.port = *port;
    }
    const std::string_view host = authority.substr(0, colon);
    if (!IsHost(host)) return false;
    url.host = host;
    return true;
}

}  // namespace

bool UrlParseInet(const KelString& text, UrlInet& url) {
    UrlInet parsed;
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == KelString::npos) return false;
    const std::string_view scheme = std::string_view(text).substr(0, schemeEnd);
    if (IsEqualTo(scheme, "http", false)) {
        parsed.scheme = "http";
        parsed.port = 80;
    } else if (IsEqualTo(scheme, "https", false)) {
        parsed.scheme = "https";
        parsed.port = 443;
    } else {
        return false;
    }
    const std::string_view rest = std::string_view(text).substr(schemeEnd + 3);
    const std::size_t slash = rest.find('/');
    if (!ParseAuthority(rest.substr(0, slash), parsed)) return false;
    if (slash != std::string_view::npos && !DecodePart(rest.substr(slash), "/@", parsed.path)) return false;
    url = std::move(parsed);
    return true;
}

KelString UrlEncodePath(const KelString& path) {
    return Encode(path, "/");
}

bool UrlDecodePath(const KelString& encoded, KelString& path) {
    return Decode(encoded, path);
}

KelString UrlForAgent(const KelString& user, const KelString& password, const KelString& address) {
    return "http://" + Encode(user, "") + ":" + Encode(password, "") + "@" + address;
}

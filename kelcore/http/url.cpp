#include "kelcore/http/url.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

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

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using ParsedUrl = std::unique_ptr<CURLU, FreeUrl>;

/// A part as it stands in the URL, still percent-encoded; nothing when it is missing.
std::optional<KelString> Part(const ParsedUrl& parsed, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(parsed.get(), part, &text, 0) != CURLUE_OK) return std::nullopt;
    const std::unique_ptr<char, void (*)(void*)> owner(text, curl_free);
    return text;
}

/// Scheme and port; a URL without a port has its scheme's.
bool ReadService(const ParsedUrl& parsed, UrlInet& url) {
    url.scheme = Part(parsed, CURLUPART_SCHEME).value_or("");
    if (url.scheme != "http" && url.scheme != "https") return false;
    url.port = url.scheme == "http" ? 80 : 443;
    const auto port = Part(parsed, CURLUPART_PORT);
    if (port) url.port = static_cast<std::uint16_t>(ParseUint64(*port).value_or(0));
    return url.port != 0;
}

/// User and password come together or not at all.
bool ReadCredentials(const ParsedUrl& parsed, UrlInet& url) {
    const auto user = Part(parsed, CURLUPART_USER);
    const auto password = Part(parsed, CURLUPART_PASSWORD);
    if (!user && !password) return true;
    return user && password && DecodePart(*user, "", url.user) && DecodePart(*password, "", url.password);
}

}  // namespace

bool UrlParseInet(const KelString& text, UrlInet& url) {
    const ParsedUrl parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
        return false;
    UrlInet read;
    if (!ReadService(parsed, read) || !ReadCredentials(parsed, read)) return false;
    if (Part(parsed, CURLUPART_QUERY) || Part(parsed, CURLUPART_FRAGMENT)) return false;
    read.host = Part(parsed, CURLUPART_HOST).value_or("");
    if (!IsHost(read.host)) return false;
    // The library corrects what it takes for slips, such as a missing slash or an abbreviated IPv4 address.
    // Only a text that it left alone is a URL; it writes the scheme in lower case and adds an empty path's
    // "/".
    const KelString whole = Part(parsed, CURLUPART_URL).value_or("");
    const KelString given = read.scheme + text.substr(read.scheme.size());
    if (whole == given) {
        if (!DecodePart(Part(parsed, CURLUPART_PATH).value_or(""), "/@", read.path)) return false;
    } else if (whole != given + "/") {
        return false;
    }
    url = std::move(read);
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

#include "modules/http_protocol/request_head.h"

#include <array>

#include "kel/text.h"

namespace kelhttp {
namespace {

constexpr std::size_t kMaxFields = 100;
constexpr std::size_t kUsualFields = 16;

/// For each byte, whether it may be in a token (RFC 9110, section 5.6.2).
constexpr auto kIsTokenCharacter = [] {
    std::array<bool, 256> is{};
    for (const unsigned char c : std::string_view("!#$%&'*+-.^_`|~0123456789"))
        is[c] = true;
    for (unsigned char c = 'a'; c <= 'z'; ++c)
        is[c] = is[c - 'a' + 'A'] = true;
    return is;
}();

bool IsToken(std::string_view text) {
    for (const char c : text) {
        if (!kIsTokenCharacter[static_cast<unsigned char>(c)]) return false;
    }
    return !text.empty();
}

std::string_view TakeLine(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

std::string_view TrimBlanks(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

Method MethodOf(std::string_view name) {
    if (name == "GET") return Method::Get;
    if (name == "HEAD") return Method::Head;
    if (name == "POST") return Method::Post;
    if (name == "PUT") return Method::Put;
    return Method::Other;
}

bool HasListItem(std::string_view list, std::string_view item) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(','), list.size());
        if (IsEqualTo(TrimBlanks(list.substr(0, end)), item, false)) return true;
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return false;
}

unsigned int ParseRequestLine(std::string_view line, RequestHead& request) {
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == last) return 400;
    request.methodName = line.substr(0, first);
    request.target = line.substr(first + 1, last - first - 1);
    const std::string_view version = line.substr(last + 1);
    if (!IsToken(request.methodName) || request.target.empty()) return 400;
    for (const char c : request.target) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) return 400;
    }
    if (version.size() != 8 || !version.starts_with("HTTP/")) return 400;
    if (version != "HTTP/1.1" && version != "HTTP/1.0") return 505;
    request.version11 = version == "HTTP/1.1";
    request.method = MethodOf(request.methodName);
    return 0;
}

bool ParseField(std::string_view line, RequestHead::NamedField& field) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !IsToken(line.substr(0, colon))) return false;
    field.name = line.substr(0, colon);
    field.value = TrimBlanks(line.substr(colon + 1));
    for (const char c : field.value) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7F) return false;
    }
    return true;
}

/// Applies a field that controls the connection; false when it contradicts an earlier one.
bool ApplyField(const RequestHead::NamedField& field, RequestHead& request) {
    if (IsEqualTo(field.name, "Content-Length", false)) {
        for (const char c : field.value) {
            if (c < '0' || c > '9') return false;
        }
        const std::optional<std::int64_t> length = ParseInt64(field.value);
        if (!length) return false;
        const auto value = static_cast<std::uint64_t>(*length);
        if (request.contentLength && *request.contentLength != value) return false;
        request.contentLength = value;
    } else if (IsEqualTo(field.name, "Transfer-Encoding", false)) {
        request.chunked = true;
    } else if (IsEqualTo(field.name, "Connection", false)) {
        if (HasListItem(field.value, "close")) request.keepAlive = false;
        if (HasListItem(field.value, "keep-alive")) request.keepAlive = true;
    }
    return true;
}

}  // namespace

std::string_view RequestHead::Field(std::string_view name) const {
    for (const NamedField& field : fields) {
        if (field.name.size() == name.size() && IsEqualTo(field.name, name, false)) return field.value;
    }
    return {};
}

std::size_t FindHeadEnd(std::string_view input, std::size_t searched) {
    for (std::size_t at = input.find('\n', searched); at != std::string_view::npos;
         at = input.find('\n', at + 1)) {
        if (at + 1 < input.size() && input[at + 1] == '\n') return at + 2;
        if (at + 2 < input.size() && input[at + 1] == '\r' && input[at + 2] == '\n') return at + 3;
    }
    return std::string_view::npos;
}

unsigned int ParseRequestHead(std::string_view head, RequestHead& request) {
    if (const unsigned int status = ParseRequestLine(TakeLine(head), request)) return status;
    request.keepAlive = request.version11;
    request.fields.reserve(kUsualFields);
    for (std::string_view line = TakeLine(head); !line.empty(); line = TakeLine(head)) {
        RequestHead::NamedField field;
        if (request.fields.size() == kMaxFields || !ParseField(line, field) || !ApplyField(field, request))
            return 400;
        request.fields.push_back(field);
    }
    if (request.chunked && request.contentLength) return 400;
    if (request.version11 && request.Field("Host").data() == nullptr) return 400;
    const std::string_view expect = request.Field("Expect");
    if (!expect.empty() && request.version11) {
        if (!IsEqualTo(expect, "100-continue", false)) return 417;
        request.expectContinue = true;
    }
    return 0;
}

}  // namespace kelhttp

#include "modules/http_protocol/request_path.h"

#include <algorithm>

#include "kel/path.h"

namespace kelhttp {
namespace {

int HexValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

std::string_view PathOf(std::string_view target) {
    if (const std::size_t query = target.find('?'); query != std::string_view::npos)
        target = target.substr(0, query);
    if (!target.empty() && target.front() == '/') return target;
    const std::size_t authority = target.find("://");
    if (authority == std::string_view::npos) return {};
    const std::size_t path = target.find('/', authority + 3);
    return path == std::string_view::npos ? std::string_view{} : target.substr(path);
}

bool DecodeElement(std::string_view encoded, KelString& decoded) {
    const std::size_t start = decoded.size();
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            decoded += encoded[i];
            continue;
        }
        if (i + 2 >= encoded.size()) return false;
        const int high = HexValue(encoded[i + 1]);
        const int low = HexValue(encoded[i + 2]);
        if (high < 0 || low < 0) return false;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return IsSafePathElement(std::string_view(decoded).substr(start));
}

}  // namespace

std::optional<KelString> DecodeRequestPath(std::string_view target) {
    std::string_view rest = PathOf(target);
    if (rest.size() < 2) return std::nullopt;
    KelString path;
    path.reserve(rest.size());
    while (!rest.empty()) {
        rest.remove_prefix(1);
        const std::size_t end = std::min(rest.find('/'), rest.size());
        path += '/';
        if (!DecodeElement(rest.substr(0, end), path)) return std::nullopt;
        rest.remove_prefix(end);
    }
    return path;
}

}  // namespace kelhttp

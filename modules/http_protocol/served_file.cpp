#include "modules/http_protocol/served_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <limits>
#include <optional>

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "modules/http_protocol/protected_files.h"

namespace kelhttp {
namespace {

/// Parses a run of digits; a number too large for 64 bits counts as the largest.
std::optional<std::uint64_t> ParsePosition(std::string_view digits) {
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return ParseUint64(digits).value_or(std::numeric_limits<std::uint64_t>::max());
}

void AppendHex(KelString& text, std::uint64_t value) {
    char digits[16];
    std::size_t count = 0;
    do {
        digits[count++] = "0123456789abcdef"[value & 15];
        value >>= 4;
    } while (value != 0);
    while (count > 0)
        text += digits[--count];
}

/// A strong entity tag: it changes with every write that changes the time stamp, and with every replacement
/// of the file.
KelString EntityTag(const struct stat& info) {
    KelString tag = "\"";
    AppendHex(tag, info.st_ino);
    tag += '-';
    AppendHex(tag, static_cast<std::uint64_t>(info.st_size));
    tag += '-';
    AppendHex(tag, static_cast<std::uint64_t>(info.st_mtim.tv_sec) * 1000000000U +
                       static_cast<std::uint64_t>(info.st_mtim.tv_nsec));
    tag += '"';
    return tag;
}

bool MatchesAny(std::string_view list, std::string_view tag) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(','), list.size());
        std::string_view item = list.substr(0, end);
        while (!item.empty() && item.front() == ' ')
            item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ')
            item.remove_suffix(1);
        if (item.starts_with("W/")) item.remove_prefix(2);
        if (item == tag || item == "*") return true;
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return false;
}

ByteRange RangeOf(const RequestHead& request, const KelString& tag, std::uint64_t size) {
    const std::string_view range = request.Field("Range");
    if (range.empty() || request.method != Method::Get) return {};
    const std::string_view ifRange = request.Field("If-Range");
    if (!ifRange.empty() && ifRange != tag) return {};  // dates are no strong validators here
    return ParseByteRange(range, size);
}

/// Opens the file to serve; invalid when it does not exist or is protected.
UniqueFd OpenServable(const AliasMatch& place) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK;  // opening a FIFO must not wait for its writer
    if (!IsServableName(place.rest)) return {};
    KelString path, name;
    SplitPath(place.rest, path, name);
    if (!IsStateName(name)) return place.root->Open(place.rest, kFlags);
    const UniqueFd folder = place.root->Open(path.empty() ? "." : path, O_PATH | O_DIRECTORY);
    return IsStateFolder(folder) ? UniqueFd() : FileOpenBeneath(folder, name, kFlags);
}

void AppendField(KelString& headers, std::string_view name, std::string_view value) {
    headers.append(name).append(": ").append(value).append("\r\n");
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

ServedFile OpenServedFile(const AliasMatch& place, const RequestHead& request) {
    ServedFile answer;
    // Whoever downloads in parts finds the file for as long as one part is being sent.
    answer.lease = KelFileLease::Try(place.root->Path() + "/" + place.rest);
    if (answer.lease) answer.fd = OpenServable(place);
    struct stat info {};
    if (!answer.fd || ::fstat(answer.fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        answer.fd.Reset();
        return answer;
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    const KelString tag = EntityTag(info);
    answer.headers.reserve(256);
    AppendField(answer.headers, "ETag", tag);
    if (MatchesAny(request.Field("If-None-Match"), tag)) {
        answer.status = 304;
        answer.fd.Reset();
        return answer;
    }
    const ByteRange range = RangeOf(request, tag, size);
    if (range.kind == ByteRange::Kind::Unsatisfiable) {
        answer.status = 416;
        AppendField(answer.headers, "Content-Range", KelFormat("bytes */%gu", size));
        AppendField(answer.headers, "Content-Length", "0");
        answer.fd.Reset();
        return answer;
    }
    const bool part = range.kind == ByteRange::Kind::Part;
    answer.status = part ? 206 : 200;
    answer.offset = range.offset;
    answer.length = part ? range.length : size;
    if (part)
        AppendField(answer.headers, "Content-Range",
                    KelFormat("bytes %gu-%gu/%gu", range.offset, range.offset + range.length - 1, size));
    AppendField(answer.headers, "Accept-Ranges", "bytes");
    AppendField(answer.headers, "Content-Type", "application/octet-stream");
    AppendField(answer.headers, "Content-Length", std::to_string(answer.length));
    if (request.method == Method::Head || answer.length == 0) answer.fd.Reset();
    return answer;
}

}  // namespace kelhttp

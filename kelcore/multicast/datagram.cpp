#include "kelcore/multicast/datagram.h"

#include <charconv>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/http/url.h"

namespace {

constexpr std::string_view kMethod = "PUT ";
constexpr std::string_view kVersion = " HTTP/1.1";
constexpr std::string_view kRange = "Content-Range";
constexpr std::string_view kUnit = "bytes ";
constexpr std::string_view kLength = "Content-Length";
constexpr std::string_view kCode = "Kel-Code";
constexpr std::string_view kLineEnd = "\r\n";

std::array<char, 8> BigEndian(std::uint64_t number) {
    std::array<char, 8> bytes{};
    for (std::size_t i = bytes.size(); i-- > 0; number >>= 8)
        bytes[i] = static_cast<char>(number & 0xFF);
    return bytes;
}

HmacKey DeriveKey(const KelString& secret, const MulticastTransfer& transfer) {
    const KelString name = KelFormat("kel multicast 1\n%S:%u\n%S\n%gu", transfer.group,
                                     unsigned{transfer.port}, transfer.urlPath, transfer.fileSize);
    const HmacKey::Code key = HmacKey(secret).Of({name});
    return HmacKey({key.data(), key.size()});
}

/// Cuts the text up to `separator` off `rest`, with the separator; nothing when there is none.
std::optional<std::string_view> TakeUpTo(std::string_view separator, std::string_view& rest) {
    const std::size_t end = rest.find(separator);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view taken = rest.substr(0, end);
    rest.remove_prefix(end + separator.size());
    return taken;
}

bool TakePrefix(std::string_view prefix, std::string_view& rest) {
    if (!rest.starts_with(prefix)) return false;
    rest.remove_prefix(prefix.size());
    return true;
}

/// A decimal number that ends at `separator`, or with the text when that is empty.
std::optional<std::uint64_t> TakeNumber(std::string_view separator, std::string_view& rest) {
    std::uint64_t number = 0;
    const char* const end = rest.data() + rest.size();
    const auto [next, error] = std::from_chars(rest.data(), end, number);
    if (error != std::errc()) return std::nullopt;
    rest.remove_prefix(static_cast<std::size_t>(next - rest.data()));
    if (separator.empty() ? !rest.empty() : !TakePrefix(separator, rest)) return std::nullopt;
    return number;
}

/// What the fields of a head say.
struct Fields {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t size = 0;
    std::uint64_t length = 0;
    std::string_view code;
    unsigned int seen = 0;  ///< bits: 1 range, 2 length, 4 code

    bool TakeRange(std::string_view value) {
        if (!TakePrefix(kUnit, value)) return false;
        const auto from = TakeNumber("-", value);
        const auto to = from ? TakeNumber("/", value) : std::nullopt;
        const auto whole = to ? TakeNumber({}, value) : std::nullopt;
        if (!whole || *from > *to || *to >= *whole) return false;
        first = *from;
        last = *to;
        size = *whole;
        return true;
    }

    bool Take(std::string_view name, std::string_view value) {
        unsigned int bit = 0;
        bool isUsable = true;
        if (IsEqualTo(name, kRange, false)) {
            bit = 1;
            isUsable = TakeRange(value);
        } else if (IsEqualTo(name, kLength, false)) {
            bit = 2;
            const auto number = TakeNumber({}, value);
            isUsable = number.has_value();
            length = number.value_or(0);
        } else if (IsEqualTo(name, kCode, false)) {
            bit = 4;
            code = value;
        }
        if ((seen & bit) != 0) return false;
        seen |= bit;
        return isUsable;
    }
};

}  // namespace

MulticastKey::MulticastKey(const KelString& secret, const MulticastTransfer& transfer)
    : key_(DeriveKey(secret, transfer)) {}

MulticastKey::Code MulticastKey::CodeOf(std::uint64_t offset, std::string_view body) const {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    const std::array<char, 8> position = BigEndian(offset);
    const HmacKey::Code whole = key_.Of({{position.data(), position.size()}, body});
    Code text{};
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const auto byte = static_cast<unsigned char>(whole[i / 2]);
        text[i] = kDigits[byte >> 4];
        text[i + 1] = kDigits[byte & 15];
    }
    return text;
}

MulticastHeads::MulticastHeads(const KelString& secret, const MulticastTransfer& transfer)
    : key_(secret, transfer), size_(std::to_string(transfer.fileSize)) {
    beginning_.append(kMethod).append(UrlEncodePath(transfer.urlPath)).append(kVersion).append(kLineEnd);
    beginning_.append(kRange).append(": ").append(kUnit);
}

void MulticastHeads::AppendPosition(std::uint64_t position, KelString& head) const {
    std::array<char, 20> digits{};
    const char* const end = std::to_chars(digits.begin(), digits.end(), position).ptr;
    const auto count = static_cast<std::size_t>(end - digits.begin());
    head.append(size_.size() - count, '0').append(digits.data(), count);
}

void MulticastHeads::Write(std::uint64_t offset, std::string_view body, KelString& head) const {
    const MulticastKey::Code code = key_.CodeOf(offset, body);
    head = beginning_;
    AppendPosition(offset, head);
    head += '-';
    AppendPosition(offset + body.size() - 1, head);
    head.append("/").append(size_).append(kLineEnd);
    head.append(kLength).append(": ").append(std::to_string(body.size())).append(kLineEnd);
    head.append(kCode).append(": ").append(code.data(), code.size()).append(kLineEnd).append(kLineEnd);
}

std::optional<MulticastDatagram> ParseMulticastDatagram(std::string_view bytes) {
    MulticastDatagram datagram;
    if (!TakePrefix(kMethod, bytes)) return std::nullopt;
    auto line = TakeUpTo(kLineEnd, bytes);
    if (!line || !line->ends_with(kVersion)) return std::nullopt;
    datagram.path = line->substr(0, line->size() - kVersion.size());
    Fields fields;
    while ((line = TakeUpTo(kLineEnd, bytes)) && !line->empty()) {
        const auto name = TakeUpTo(": ", *line);
        if (!name || !fields.Take(*name, *line)) return std::nullopt;
    }
    if (!line || fields.seen != 7 || fields.length != bytes.size() ||
        fields.length != fields.last - fields.first + 1)
        return std::nullopt;
    datagram.offset = fields.first;
    datagram.fileSize = fields.size;
    datagram.code = fields.code;
    datagram.body = bytes;
    return datagram;
}

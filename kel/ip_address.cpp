#include "kel/ip_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <algorithm>
#include <memory>

#include "kel/format.h"
#include "kel/text.h"

namespace {

constexpr std::string_view kSeparators = ",; \t\r\n";

std::optional<std::uint32_t> ParseDecimal(std::string_view text, std::size_t maxDigits,
                                          std::uint64_t maximum) {
    const auto number = ParseUint64(text);
    if (!number || *number > maximum || text.size() > maxDigits) return std::nullopt;
    return static_cast<std::uint32_t>(*number);
}

KelString WithoutBlanksAtHyphens(std::string_view text) {
    KelString joined;
    for (const char c : text) {
        const bool isBlank = c == ' ' || c == '\t';
        if (isBlank && joined.ends_with('-')) continue;
        if (c == '-')
            while (joined.ends_with(' ') || joined.ends_with('\t'))
                joined.pop_back();
        joined += c;
    }
    return joined;
}

}  // namespace

std::optional<IpAddress> IpAddress::Parse(std::string_view text) {
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part) {
        const std::size_t end = part < 3 ? text.find('.') : text.size();
        if (end == std::string_view::npos) return std::nullopt;
        const auto number = ParseDecimal(text.substr(0, end), 3, 255);
        if (!number) return std::nullopt;
        value = value << 8 | *number;
        text.remove_prefix(part < 3 ? end + 1 : end);
    }
    return IpAddress(value);
}

std::optional<IpAddress> IpAddress::Resolve(const KelString& host) {
    if (const auto address = Parse(host)) return address;
    // The resolver would look up what stands before a zero byte.
    if (host.empty() || host.find('\0') != KelString::npos) return std::nullopt;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return std::nullopt;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
    const auto* address = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
    return IpAddress(ntohl(address->sin_addr.s_addr));
}

KelString IpAddress::ToText() const {
    return KelFormat("%u.%u.%u.%u", value_ >> 24, value_ >> 16 & 0xFF, value_ >> 8 & 0xFF, value_ & 0xFF);
}

std::optional<IpRange::Item> IpRange::ParseItem(std::string_view text) {
    if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
        const auto network = IpAddress::Parse(text.substr(0, slash));
        const auto prefix = ParseDecimal(text.substr(slash + 1), 2, 32);
        if (!network || !prefix) return std::nullopt;
        // A shift by all 32 bits is undefined.
        const std::uint32_t hostBits = *prefix == 0 ? ~0U : ~(~0U << (32 - *prefix));
        return Item{network->Value() & ~hostBits, network->Value() | hostBits};
    }
    const std::size_t hyphen = text.find('-');
    const auto first = IpAddress::Parse(text.substr(0, hyphen));
    const auto last = hyphen == std::string_view::npos ? first : IpAddress::Parse(text.substr(hyphen + 1));
    if (!first || !last || *last < *first) return std::nullopt;
    return Item{first->Value(), last->Value()};
}

bool IpRange::Parse(std::string_view text) {
    items_.clear();
    bool wellFormed = true;
    const KelString joined = WithoutBlanksAtHyphens(text);
    for (std::string_view rest = joined;;) {
        const std::size_t start = rest.find_first_not_of(kSeparators);
        if (start == std::string_view::npos) return wellFormed;
        rest.remove_prefix(start);
        const std::string_view piece = rest.substr(0, rest.find_first_of(kSeparators));
        rest.remove_prefix(piece.size());
        if (const auto item = ParseItem(piece))
            Add(*item);
        else
            wellFormed = false;
    }
}

void IpRange::Add(Item item) {
    // Only what no earlier item holds is added, so that every address has one place in the walk.
    KelVector<Item> left = {item};
    for (const Item& held : items_) {
        KelVector<Item> remaining;
        for (const Item& piece : left) {
            if (held.last < piece.first || piece.last < held.first) {
                remaining.push_back(piece);
                continue;
            }
            if (piece.first < held.first) remaining.push_back({piece.first, held.first - 1});
            if (held.last < piece.last) remaining.push_back({held.last + 1, piece.last});
        }
        left = std::move(remaining);
    }
    items_.insert(items_.end(), left.begin(), left.end());
}

bool IpRange::Contains(IpAddress address) const {
    return std::any_of(items_.begin(), items_.end(), [&](const Item& item) {
        return item.first <= address.Value() && address.Value() <= item.last;
    });
}

bool IpRange::GetNextAddress(IpAddress& address, bool first) const {
    if (first) {
        if (!items_.empty()) address = IpAddress(items_.front().first);
        return !items_.empty();
    }
    const auto item = std::find_if(items_.begin(), items_.end(), [&](const Item& candidate) {
        return candidate.first <= address.Value() && address.Value() <= candidate.last;
    });
    if (item == items_.end()) return false;
    const bool isLast = address.Value() == item->last;
    if (isLast && item + 1 == items_.end()) return false;
    address = IpAddress(isLast ? (item + 1)->first : address.Value() + 1);
    return true;
}

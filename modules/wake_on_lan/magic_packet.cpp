#include "modules/wake_on_lan/magic_packet.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::size_t kPairLength = 3;  ///< with the separator, which the last one lacks
constexpr std::size_t kTextLength = kPairLength * std::tuple_size_v<MacAddress> - 1;
constexpr unsigned char kGroupBit = 0x01;  ///< in the first byte; also set in the broadcast address

}  // namespace

std::optional<MacAddress> ParseMacAddress(std::string_view text) {
    if (text.size() != kTextLength || (text[2] != '-' && text[2] != ':')) return std::nullopt;
    MacAddress address{};
    for (std::size_t i = 0; i < address.size(); ++i) {
        const std::string_view pair = text.substr(i * kPairLength, 2);
        if (i > 0 && text[i * kPairLength - 1] != text[2]) return std::nullopt;
        const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), address[i], 16);
        if (error != std::errc() || end != pair.data() + pair.size()) return std::nullopt;
    }
    const bool isZero = std::ranges::count(address, 0) == std::ssize(address);
    if (isZero || (address[0] & kGroupBit) != 0) return std::nullopt;
    return address;
}

KelString MacAddressText(const MacAddress& address) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    KelString text;
    for (const unsigned char byte : address) {
        if (!text.empty()) text += '-';
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

MagicPacket MakeMagicPacket(const MacAddress& address) {
    MagicPacket packet;
    packet.fill(0xFF);
    for (auto* at = packet.begin() + address.size(); at != packet.end(); at += address.size())
        std::ranges::copy(address, at);
    return packet;
}

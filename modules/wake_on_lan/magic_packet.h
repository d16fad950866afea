#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "kel/types.h"

/// The address of a network card.
using MacAddress = std::array<unsigned char, 6>;

/// Six pairs of hexadecimal digits with "-" or ":" between them. Nothing for any other text and for an
/// address that no single card has: zeros only, groups, broadcast.
std::optional<MacAddress> ParseMacAddress(std::string_view text);

/// "02-00-7F-00-01-01"
KelString MacAddressText(const MacAddress& address);

/// Six bytes of 0xFF, then the address of the card sixteen times.
using MagicPacket = std::array<unsigned char, 6 + 16 * std::tuple_size_v<MacAddress>>;

MagicPacket MakeMagicPacket(const MacAddress& address);

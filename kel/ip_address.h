#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "kel/types.h"

/// An IPv4 address.
class IpAddress {
  public:
    IpAddress() = default;
    /// From a number in host order: 0x7F000001 is 127.0.0.1.
    explicit IpAddress(std::uint32_t value) : value_(value) {}

    /// The dotted form with four decimal parts; nothing when `text` is anything else.
    static std::optional<IpAddress> Parse(std::string_view text);

    /// Resolves a host name or dotted form to its first IPv4 address. Blocks on the resolver.
    static std::optional<IpAddress> Resolve(const KelString& host);

    std::uint32_t Value() const { return value_; }
    KelString ToText() const;
    auto operator<=>(const IpAddress&) const = default;

  private:
    std::uint32_t value_ = 0;
};

/// A list of address ranges, as "10.0.0.1-10.0.0.9, 192.168.0.0/24; 10.1.1.1": items separated by commas,
/// semicolons or blanks, each a range, a network with its prefix length, or one address. Blanks may surround
/// the hyphen of a range. Memory depends on the length of the text, not on the number of addresses.
class IpRange {
  public:
    IpRange() = default;

    /// Replaces the content. False when an item is malformed: the well-formed items count, the others are
    /// left out. An empty text gives an empty range, which contains nothing.
    bool Parse(std::string_view text);

    bool IsEmpty() const { return items_.empty(); }
    bool Contains(IpAddress address) const;

    /// Walks the addresses in the order of the text: sets `address` to the one after `address` (with `first`
    /// true to the first of all); false at the end and when `address` is not contained. An address that
    /// several items hold is visited once, at its first item.
    bool GetNextAddress(IpAddress& address, bool first) const;

  private:
    struct Item {
        std::uint32_t first;
        std::uint32_t last;
    };
    static std::optional<Item> ParseItem(std::string_view text);
    void Add(Item item);

    KelVector<Item> items_;  ///< in the order of the text, without common addresses
};

#include "kelcore/net/network_interface.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netpacket/packet.h>

#include <array>
#include <cstring>
#include <memory>
#include <span>

namespace {

constexpr std::size_t kMacBytes = 6;

KelString MacText(std::span<const unsigned char, kMacBytes> bytes) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    KelString text;
    for (const unsigned char byte : bytes) {
        if (!text.empty()) text += '-';
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

/// Copied, because the kernel's structures are not aligned for the actual address type.
template <class Address>
Address CopyOf(const sockaddr* address) {
    Address copy{};
    if (address != nullptr) std::memcpy(&copy, address, sizeof(copy));
    return copy;
}

IpAddress ToIpAddress(const sockaddr* address) {
    return IpAddress(ntohl(CopyOf<sockaddr_in>(address).sin_addr.s_addr));
}

/// By the name of the interface: the system lists link and IP addresses as separate entries.
KelHash<KelString, KelString> MacAddresses(const ifaddrs* list) {
    KelHash<KelString, KelString> result;
    for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
        if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_PACKET) continue;
        const auto link = CopyOf<sockaddr_ll>(item->ifa_addr);
        if (link.sll_halen != kMacBytes || (item->ifa_flags & IFF_LOOPBACK) != 0) continue;
        result[item->ifa_name] = MacText(std::span(link.sll_addr).first<kMacBytes>());
    }
    return result;
}

bool IsLinkLocal(IpAddress address) {
    return (address.Value() & 0xFFFF0000) == 0xA9FE0000;  // 169.254.0.0/16
}

}  // namespace

KelVector<NetworkInterface> ListNetworkInterfaces() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(first, &freeifaddrs);
    const auto macAddresses = MacAddresses(list.get());
    KelVector<NetworkInterface> result;
    for (const ifaddrs* item = list.get(); item != nullptr; item = item->ifa_next) {
        if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_INET) continue;
        if ((item->ifa_flags & IFF_UP) == 0) continue;
        NetworkInterface entry;
        entry.name = item->ifa_name;
        entry.address = ToIpAddress(item->ifa_addr);
        entry.mask = ToIpAddress(item->ifa_netmask);
        entry.isLoopback = (item->ifa_flags & IFF_LOOPBACK) != 0;
        if (const auto mac = macAddresses.find(entry.name); mac != macAddresses.end()) {
            entry.macAddress = mac->second;
        }
        result.push_back(std::move(entry));
    }
    return result;
}

std::optional<NetworkInterface> FindInterface(const KelVector<NetworkInterface>& interfaces,
                                              IpAddress address) {
    for (const NetworkInterface& entry : interfaces) {
        if (entry.address == address) return entry;
    }
    // A device can have an address that no interface carries, such as another one of the loopback network.
    for (const NetworkInterface& entry : interfaces) {
        const std::uint32_t mask = entry.mask.Value();
        if (mask != 0 && (entry.address.Value() & mask) == (address.Value() & mask)) return entry;
    }
    return std::nullopt;
}

std::optional<NetworkInterface> FirstReachableInterface(const KelVector<NetworkInterface>& interfaces) {
    for (const NetworkInterface& entry : interfaces) {
        if (!entry.isLoopback && !IsLinkLocal(entry.address)) return entry;
    }
    return std::nullopt;
}

KelString MacAddressFor(IpAddress address) {
    const std::uint32_t value = address.Value();
    const std::array<unsigned char, kMacBytes> bytes = {0x02,  // the bit of locally administered addresses
                                                        0x00,
                                                        static_cast<unsigned char>(value >> 24),
                                                        static_cast<unsigned char>(value >> 16),
                                                        static_cast<unsigned char>(value >> 8),
                                                        static_cast<unsigned char>(value)};
    return MacText(bytes);
}

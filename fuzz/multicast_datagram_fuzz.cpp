// Datagrams of multicast transfers, which anyone on the network can send.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kelcore/multicast/datagram.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MulticastTransfer transfer{"239.1.1.1", 1500, "/Store/file", 100'000};
    static const MulticastHeads heads("a password that the input does not hold", transfer);
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (const auto datagram = ParseMulticastDatagram(input)) {
        if (datagram->body.empty() || datagram->offset >= datagram->fileSize) std::abort();
        if (datagram->body.size() > datagram->fileSize - datagram->offset) std::abort();
        if (!input.ends_with(datagram->body)) std::abort();
    }
    // What a sender writes is read back, whatever the body looks like.
    if (input.empty()) return 0;
    const std::string_view body = input.substr(1, 1024);
    const std::uint64_t offset = data[0] * std::uint64_t{388};
    if (body.empty()) return 0;
    KelString message;
    heads.Write(offset, body, message);
    const std::size_t head = message.size();
    message += body;
    const auto datagram = ParseMulticastDatagram(message);
    const bool fits = offset + body.size() <= transfer.fileSize;
    if (datagram.has_value() != fits) std::abort();
    if (datagram && (datagram->offset != offset || datagram->body != message.substr(head))) std::abort();
    return 0;
}

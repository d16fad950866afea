#include <cstdlib>

#include "kel/ip_address.h"

/// The walk stays inside the range and visits no address twice in a row; memory follows the text's length.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    IpRange range;
    range.Parse(text);
    IpAddress address;
    IpAddress before;
    bool found = range.GetNextAddress(address, true);
    if (found == range.IsEmpty()) std::abort();
    for (int step = 0; found && step < 1000; ++step) {
        if (!range.Contains(address) || (step > 0 && address == before)) std::abort();
        before = address;
        found = range.GetNextAddress(address, false);
    }
    if (const auto parsed = IpAddress::Parse(text))
        if (!range.Contains(*parsed) || IpAddress::Parse(parsed->ToText()) != parsed) std::abort();
    return 0;
}

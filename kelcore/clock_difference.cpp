#include "kelcore/clock_difference.h"

#include <cstdlib>
#include <ctime>

#include "kel/format.h"

std::optional<std::int64_t> TimeOfHttpDate(const KelString& date) {
    std::tm parts{};
    if (strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts) == nullptr) return {};
    return timegm(&parts);
}

KelString ClockDifferenceText(std::int64_t ahead) {
    constexpr std::int64_t kHour = 3600;
    constexpr std::int64_t kDay = 86400;
    const std::int64_t off = std::abs(ahead);
    const char* const side = ahead > 0 ? "ahead of" : "behind";
    if (off >= 2 * kDay) return KelFormat("%gd days %s", off / kDay, side);
    if (off >= 2 * kHour) return KelFormat("%gd hours %s", off / kHour, side);
    return KelFormat("%gd s %s", off, side);
}

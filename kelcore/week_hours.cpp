#include "kelcore/week_hours.h"

#include <ctime>

namespace {

constexpr std::int64_t kSecondsPerHour = 3600;

std::tm TimeParts(std::int64_t time, bool utc) {
    const std::time_t seconds = time;
    std::tm parts{};
    if (utc)
        gmtime_r(&seconds, &parts);
    else
        localtime_r(&seconds, &parts);
    return parts;
}

}  // namespace

std::size_t WeekHour(std::int64_t time, bool utc) {
    const std::tm parts = TimeParts(time, utc);
    const int day = (parts.tm_wday + 6) % 7;
    return static_cast<std::size_t>(day * 24 + parts.tm_hour);
}

std::int64_t WeekHourBegin(std::int64_t time, bool utc) {
    const std::tm parts = TimeParts(time, utc);
    return time - parts.tm_min * 60 - parts.tm_sec;
}

std::int64_t WeekHourEnd(std::int64_t time, bool utc) {
    return WeekHourBegin(time, utc) + kSecondsPerHour;
}

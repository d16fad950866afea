#pragma once

#include <cstddef>
#include <cstdint>

// The hours of the week, by which windows are kept: hour 0 is Monday 00:00 to 00:59, hour 167 Sunday 23:00 to
// 23:59. Times are seconds since the epoch. With `utc` false the hours are those of local time: when clocks
// are set back an hour of it comes twice, when they are set forward it is left out. Any thread.

inline constexpr std::size_t kWeekHours = 168;

/// The hour that the clock shows at `time`.
std::size_t WeekHour(std::int64_t time, bool utc);

/// When the hour of `time` began and when it ends. Offsets from UTC that hold minutes count, and so do clocks
/// that are set by half an hour: a step to the end of an hour may then be shorter than one, but never over
/// it.
std::int64_t WeekHourBegin(std::int64_t time, bool utc);
std::int64_t WeekHourEnd(std::int64_t time, bool utc);

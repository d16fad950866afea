#pragma once

#include <cstdint>
#include <optional>

#include "kel/types.h"

/// Seconds by which the clocks of two devices may differ; by more, one of them is wrong.
inline constexpr std::int64_t kClocksDiffer = 60;

/// The time in the header Date of an answer (RFC 9110), in seconds since the epoch; nothing without one.
std::optional<std::int64_t> TimeOfHttpDate(const KelString& date);

/// How far a clock that is `ahead` seconds ahead of another one is off, as "364 days ahead of"; behind when
/// negative.
KelString ClockDifferenceText(std::int64_t ahead);

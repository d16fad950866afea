#pragma once

#include <cstddef>
#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/week_hours.h"

/// Directions of transfer, as actions number them.
enum class TransferDirection : std::int32_t { Up = 1, Down = 2, Multicast = 3 };

/// A weekly window: what a direction may use in each hour of the week.
struct WeeklyWindow {
    static constexpr std::size_t kHours = kWeekHours;

    /// One decimal number per hour, separated by single blanks; the first is Monday 00:00 to 00:59. 0:
    /// closed.
    KelString slots;
    /// Unit of the numbers: 1 bit/s, 2 kbit/s, 3 Mbit/s, 7 per cent and 8 per thousand of the bandwidth to
    /// the parent. 4 to 6 are accepted but set no rate.
    std::int32_t slotType = 2;
    bool useUtcTime = false;  ///< hours are of UTC, else of local time
    bool isWeek = false;      ///< was given as rules (week_text.h) and is kept so in the ini file

    bool operator==(const WeeklyWindow&) const = default;
    KelContainer ToContainer() const;  ///< Slots (string), SlotType (int32), UseUTCTime (bool)
};

/// A window at a moment.
struct WindowMoment {
    std::size_t slot = 0;         ///< the hour of the week
    std::int64_t nextChange = 0;  ///< when another number begins to count, seconds since the epoch; 0: never
    std::size_t nextSlot = 0;     ///< the hour that begins then
};

WindowMoment MomentOf(const WeeklyWindow& window, std::int64_t now);

/// Checks and normalises a window: `slots` holds 168 decimal numbers separated by blanks, or one for all
/// hours. Numbers with a leading zero are refused, because readers would parse them as octal; so are
/// percentages above 100, per thousands above 1000 and rates above 10^15.
KelResult<WeeklyWindow> MakeWeeklyWindow(const KelString& slots, std::int32_t slotType, bool useUtcTime);

#pragma once

#include <array>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/transfer_window/weekly_window.h"

// The form in which people write a week: rules separated by ";", each "[DAYS] [HOURS] RATE" or, as the last
// one, "else RATE". The first rule that covers an hour counts, and every hour must be covered.
//
//   mon-fri 8-18 4M; sat,sun closed; else 20M
//
// DAYS    mon to sun, separated by "," or as a range; absent: every day
// HOURS   ranges of full hours from 0 to 24, separated by ","; 22-6 ends on the next day; absent: all day
// RATE    closed, or a number (with up to three decimals) with k, M or G for kbit/s, Mbit/s and Gbit/s, with
// bit
//         for bit/s, with % or with /1000; relative and absolute rates do not stand together

/// A window from this form. Its slot type is the coarsest that holds all rates. An error names the rule.
KelResult<WeeklyWindow> ParseWeekText(const KelString& text, bool useUtcTime);

/// A window given as rules or as numbers; the other text is empty.
KelResult<WeeklyWindow> MakeWindow(const KelString& week, const KelString& slots, std::int32_t slotType,
                                   bool useUtcTime);

/// A window in this form; empty for one whose slot type has no rates.
KelString WeekText(const WeeklyWindow& window);

/// The rates of the 168 hours, each as in a rule; empty texts for a slot type without rates.
std::array<KelString, WeeklyWindow::kHours> HourRates(const WeeklyWindow& window);

#pragma once

#include <cstdint>
#include <optional>

#include "kel/types.h"

/// The rate of an hour, as people write it: "512k", "4M", "1.5 Gbit/s", "1500bit", "50%", "5/1000", "closed".
struct HourRate {
    enum class Measure : unsigned char { None, Bits, Percent, PerThousand };

    Measure measure = Measure::None;  ///< None: closed
    std::uint64_t value = 0;          ///< bit/s, per cent or per thousand
};

/// Reads such a text in lower case. Nothing for any other text and for a rate below 1 kbit/s.
std::optional<HourRate> ParseHourRate(const KelString& text);

/// The coarsest slot type that holds all rates; nothing when relative and absolute ones stand together.
std::optional<std::int32_t> CommonSlotType(const KelVector<HourRate>& rates);

/// The number that stands for a rate in the slots of a type that holds it.
std::uint64_t SlotValue(const HourRate& rate, std::int32_t slotType);

/// The text for a number in the slots of a type; empty when the type has no rates.
KelString HourRateText(std::uint64_t value, std::int32_t slotType);

#include "modules/transfer_window/hour_rate.h"

#include <algorithm>
#include <map>

#include "kel/format.h"
#include "kel/text.h"

namespace {

using Measure = HourRate::Measure;

constexpr std::uint64_t kKilo = 1000;
constexpr std::uint64_t kMega = 1000 * kKilo;
constexpr std::uint64_t kGiga = 1000 * kMega;
constexpr std::size_t kBitLength = 3;

/// A number with up to three decimals, in thousandths.
std::optional<std::uint64_t> ParseThousandths(const KelString& text) {
    const auto point = text.find('.');
    KelString decimals = point == KelString::npos ? KelString() : text.substr(point + 1);
    if (decimals.size() > 3 || (point != KelString::npos && decimals.empty())) return std::nullopt;
    decimals.resize(3, '0');
    const auto whole = ParseUint64(text.substr(0, point));
    const auto part = ParseUint64(decimals);
    if (!whole || !part || *whole > kGiga) return std::nullopt;
    return *whole * 1000 + *part;
}

/// A rate in bit/s with the largest prefix that leaves a whole number.
KelString BitsText(std::uint64_t kilobits) {
    if (kilobits % kMega == 0) return KelFormat("%guG", kilobits / kMega);
    if (kilobits % kKilo == 0) return KelFormat("%guM", kilobits / kKilo);
    return KelFormat("%guk", kilobits);
}

}  // namespace

std::optional<HourRate> ParseHourRate(const KelString& text) {
    if (text == "closed") return HourRate{};
    const auto unitAt = std::min(text.find_first_not_of("0123456789."), text.size());
    KelString unit = text.substr(unitAt);
    if (unit.ends_with("/s")) unit.resize(unit.size() - 2);
    if (unit.size() > kBitLength && unit.ends_with("bit")) unit.resize(unit.size() - kBitLength);
    const auto number = ParseThousandths(text.substr(0, unitAt));
    if (!number) return std::nullopt;
    static const std::map<KelString, std::pair<Measure, std::uint64_t>> units = {
        {"k", {Measure::Bits, kKilo}}, {"m", {Measure::Bits, kMega}}, {"g", {Measure::Bits, kGiga}},
        {"bit", {Measure::Bits, 1}},   {"%", {Measure::Percent, 1}},  {"/1000", {Measure::PerThousand, 1}},
    };
    const auto known = units.find(unit);
    if (*number == 0 && (unit.empty() || known != units.end())) return HourRate{};
    if (known == units.end()) return std::nullopt;
    const auto [measure, factor] = known->second;
    const std::uint64_t value = *number * factor / 1000;
    if (value * 1000 != *number * factor) return std::nullopt;
    if (measure == Measure::Bits && value < kKilo) return std::nullopt;
    return HourRate{measure, value};
}

std::optional<std::int32_t> CommonSlotType(const KelVector<HourRate>& rates) {
    Measure measure = Measure::None;
    std::int32_t type = 3;
    for (const HourRate& rate : rates) {
        if (rate.measure == Measure::None) continue;
        if (measure != Measure::None && measure != rate.measure) return std::nullopt;
        measure = rate.measure;
        if (rate.value % kMega != 0) type = std::min(type, rate.value % kKilo != 0 ? 1 : 2);
    }
    if (measure == Measure::Percent) return 7;
    if (measure == Measure::PerThousand) return 8;
    return type;
}

std::uint64_t SlotValue(const HourRate& rate, std::int32_t slotType) {
    if (slotType == 3) return rate.value / kMega;
    return slotType == 2 ? rate.value / kKilo : rate.value;
}

KelString HourRateText(std::uint64_t value, std::int32_t slotType) {
    if (value == 0 || (slotType == 1 && value < kKilo)) return "closed";
    switch (slotType) {
        case 1:
            return value % kKilo == 0 ? BitsText(value / kKilo) : KelFormat("%gubit", value);
        case 2:
            return BitsText(value);
        case 3:
            return BitsText(value * kKilo);
        case 7:
            return KelFormat("%gu%%", value);
        case 8:
            return KelFormat("%gu/1000", value);
        default:
            return {};
    }
}

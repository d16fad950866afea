#include "modules/transfer_window/week_text.h"

#include <algorithm>
#include <bitset>
#include <map>
#include <optional>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "modules/transfer_window/hour_rate.h"

namespace {

constexpr std::size_t kDays = 7;
constexpr std::size_t kDayHours = 24;
constexpr std::array<std::string_view, kDays> kDayNames = {"monday", "tuesday",  "wednesday", "thursday",
                                                           "friday", "saturday", "sunday"};
constexpr std::size_t kShortName = 3;

using Hours = std::bitset<WeeklyWindow::kHours>;
using Days = std::bitset<kDays>;

KelError Refusal(const KelString& rule, const char* problem) {
    return {kKelErrorBadInput, KelFormat("\"%S\": %s", rule, problem)};
}

/// `text` in lower case, with single blanks and none around "," and "-".
KelString Normal(const KelString& text) {
    KelString normal;
    for (const char c : ToLowerText(Trim(text))) {
        const bool isBlank = c == ' ' || c == '\t';
        const bool joins = c == ',' || c == '-';
        if (joins && normal.ends_with(' ')) normal.pop_back();
        if (isBlank && (normal.ends_with(' ') || normal.ends_with(',') || normal.ends_with('-'))) continue;
        normal += isBlank ? ' ' : c;
    }
    return normal;
}

std::optional<std::size_t> ParseDay(std::string_view text) {
    for (std::size_t day = 0; day < kDays; ++day)
        if (text == kDayNames[day] || text == kDayNames[day].substr(0, kShortName)) return day;
    return std::nullopt;
}

/// "mon", "mon-fri" or several of them; nothing when a piece is neither.
std::optional<Days> ParseDays(const KelString& text) {
    Days days;
    for (const KelString& piece : SplitText(text, ',')) {
        const auto hyphen = piece.find('-');
        const auto first = ParseDay(piece.substr(0, hyphen));
        const auto last = hyphen == KelString::npos ? first : ParseDay(piece.substr(hyphen + 1));
        if (!first || !last) return std::nullopt;
        days.set(*last);
        for (std::size_t day = *first; day != *last; day = (day + 1) % kDays)
            days.set(day);
    }
    return days;
}

/// Whether a word can only be meant as hours: rates hold no hyphen.
bool LooksLikeHours(const KelString& word) {
    return word.find('-') != KelString::npos && word.find_first_not_of("0123456789-,") == KelString::npos;
}

struct Span {
    std::size_t from;
    std::size_t to;  ///< not above `from`: of the next day
};

std::optional<KelVector<Span>> ParseHours(const KelString& text) {
    KelVector<Span> spans;
    for (const KelString& piece : SplitText(text, ',')) {
        const auto hyphen = piece.find('-');
        if (hyphen == KelString::npos) return std::nullopt;
        const auto from = ParseUint64(piece.substr(0, hyphen));
        const auto to = ParseUint64(piece.substr(hyphen + 1));
        if (!from || !to || *from >= kDayHours || *to > kDayHours || *from == *to) return std::nullopt;
        spans.push_back({*from, *to});
    }
    return spans;
}

Hours HoursOf(const Days& days, const KelVector<Span>& spans) {
    Hours hours;
    for (std::size_t day = 0; day < kDays; ++day) {
        if (!days[day]) continue;
        for (const Span& span : spans) {
            const std::size_t end = span.to > span.from ? span.to : span.to + kDayHours;
            for (std::size_t hour = span.from; hour < end; ++hour)
                hours.set((day * kDayHours + hour) % hours.size());
        }
    }
    return hours;
}

struct Rule {
    Hours hours;
    HourRate rate;
    bool isElse = false;
};

KelResult<Rule> ParseRule(const KelString& text) {
    KelVector<KelString> words = SplitText(text, ' ');
    std::size_t used = 0;
    Days days = Days().set();
    KelVector<Span> spans = {{0, kDayHours}};
    Rule rule;
    rule.isElse = words[0] == "else";
    if (rule.isElse) {
        used = 1;
    } else {
        if (const auto named = ParseDays(words[0])) {
            days = *named;
            used = 1;
        }
        if (used < words.size() && LooksLikeHours(words[used])) {
            const auto named = ParseHours(words[used++]);
            if (!named) return Refusal(text, "hours are ranges from 0 to 24, as 8-18");
            spans = *named;
        }
    }
    KelString rest;  // the rate, with or without a blank before its unit
    for (; used < words.size(); ++used) {
        const bool isNumber = words[used].find_first_of("0123456789") == 0;
        rest += (isNumber && !rest.empty() ? " " : "") + words[used];
    }
    const auto rate = ParseHourRate(rest);
    if (!rate)
        return Refusal(text,
                       "expected [DAYS] [HOURS] RATE or else RATE, with a RATE such as 512k, 4M, 50%, "
                       "5/1000 or closed, of at least 1k");
    rule.rate = *rate;
    rule.hours = HoursOf(days, spans);
    return rule;
}

KelString HourName(std::size_t hour) {
    return KelFormat("%S %lu:00", KelString(kDayNames[hour / kDayHours].substr(0, kShortName)),
                     hour % kDayHours);
}

/// "sat,sun", "mon-fri"; empty for all days.
KelString DaysText(const Days& days) {
    KelString text;
    if (days.all()) return text;
    for (std::size_t day = 0; day < kDays; ++day) {
        if (!days[day]) continue;
        std::size_t last = day;
        while (last + 1 < kDays && days[last + 1])
            ++last;
        const auto name = [](std::size_t of) { return KelString(kDayNames[of].substr(0, kShortName)); };
        text += (text.empty() ? "" : ",") + name(day);
        if (last > day) text += (last == day + 1 ? "," : "-") + name(last);
        day = last;
    }
    return text;
}

using DayRates = std::array<KelString, kDayHours>;

/// "8-18", "0-6,22-24": the hours of a day with this rate; empty for all.
KelString HoursText(const DayRates& rates, const KelString& rate) {
    KelString text;
    for (std::size_t hour = 0; hour < kDayHours; ++hour) {
        if (rates[hour] != rate) continue;
        std::size_t end = hour;
        while (end < kDayHours && rates[end] == rate)
            ++end;
        text += KelFormat("%s%lu-%lu", text.empty() ? "" : ",", hour, end);
        hour = end;
    }
    return text == "0-24" ? KelString() : text;
}

KelString MostCommon(const std::array<KelString, WeeklyWindow::kHours>& rates) {
    std::map<KelString, int> counts;
    for (const KelString& rate : rates)
        ++counts[rate];
    return std::ranges::max_element(counts, {}, [](const auto& entry) { return entry.second; })->first;
}

/// The rules of days with the same rates, but for hours with the rate `usual`.
void AppendRules(const Days& days, const DayRates& rates, const KelString& usual, KelString& text) {
    KelVector<KelString> done = {usual};
    for (const KelString& rate : rates) {
        if (std::ranges::find(done, rate) != done.end()) continue;
        done.push_back(rate);
        for (const KelString& part : {DaysText(days), HoursText(rates, rate)})
            if (!part.empty()) text += part + " ";
        text += rate + "; ";
    }
}

}  // namespace

KelResult<WeeklyWindow> ParseWeekText(const KelString& text, bool useUtcTime) {
    Hours covered;
    KelVector<HourRate> rates(WeeklyWindow::kHours);
    bool isEnded = false;
    for (const KelString& piece : SplitText(text, ';')) {
        const KelString normal = Normal(piece);
        if (normal.empty()) continue;
        if (isEnded) return Refusal(normal, "no rule counts behind the one with else");
        const auto rule = ParseRule(normal);
        if (!rule) return rule.Error();
        isEnded = rule->isElse;
        for (std::size_t hour = 0; hour < rates.size(); ++hour)
            if (rule->hours[hour] && !covered[hour]) rates[hour] = rule->rate;
        covered |= rule->hours;
    }
    for (std::size_t hour = 0; hour < rates.size(); ++hour)
        if (!covered[hour])
            return KelError{kKelErrorBadInput,
                            KelFormat("no rule covers %S; end with \"; else RATE\"", HourName(hour))};
    const auto slotType = CommonSlotType(rates);
    if (!slotType)
        return KelError{kKelErrorBadInput,
                        "absolute rates, percentages and rates per thousand cannot be mixed"};
    KelString slots;
    for (const HourRate& rate : rates)
        slots += KelFormat("%gu ", SlotValue(rate, *slotType));
    return MakeWeeklyWindow(slots, *slotType, useUtcTime);
}

KelResult<WeeklyWindow> MakeWindow(const KelString& week, const KelString& slots, std::int32_t slotType,
                                   bool useUtcTime) {
    if (week.empty()) return MakeWeeklyWindow(slots, slotType, useUtcTime);
    if (!slots.empty()) return KelError{kKelErrorBadInput, "Week and Slots exclude each other"};
    auto window = ParseWeekText(week, useUtcTime);
    if (!window) return window;
    window->isWeek = true;
    return window;
}

std::array<KelString, WeeklyWindow::kHours> HourRates(const WeeklyWindow& window) {
    std::array<KelString, WeeklyWindow::kHours> rates;
    const KelVector<KelString> numbers = SplitText(window.slots, ' ');
    for (std::size_t hour = 0; hour < rates.size() && hour < numbers.size(); ++hour)
        rates[hour] = HourRateText(ParseUint64(numbers[hour]).value_or(0), window.slotType);
    return rates;
}

KelString WeekText(const WeeklyWindow& window) {
    if (window.slotType >= 4 && window.slotType <= 6) return {};
    const auto rates = HourRates(window);
    const KelString usual = MostCommon(rates);
    std::array<DayRates, kDays> byDay;
    for (std::size_t hour = 0; hour < rates.size(); ++hour)
        byDay[hour / kDayHours][hour % kDayHours] = rates[hour];
    KelString text;
    Days done;
    for (std::size_t day = 0; day < kDays; ++day) {
        if (done[day]) continue;
        Days same;
        for (std::size_t other = day; other < kDays; ++other)
            if (byDay[other] == byDay[day]) same.set(other);
        done |= same;
        AppendRules(same, byDay[day], usual, text);
    }
    return text.empty() ? usual : text + "else " + usual;
}

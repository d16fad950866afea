#include "modules/transfer_window/weekly_window.h"

#include <optional>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::int32_t kPercent = 7;
constexpr std::int32_t kPerThousand = 8;

/// A rate in Mbit/s is multiplied by 1000 in 64 bits where it is used; this bound rules out an overflow.
constexpr std::uint64_t kMaxRate = 1'000'000'000'000'000;

std::uint64_t MaxNumber(std::int32_t slotType) {
    if (slotType == kPercent) return 100;
    if (slotType == kPerThousand) return 1000;
    return kMaxRate;
}

KelStatus CheckNumber(const KelString& text, std::uint64_t maximum) {
    const auto number = ParseUint64(text);
    const bool isDecimal = text.find_first_not_of("0123456789") == KelString::npos;
    if (!number || !isDecimal || (text.size() > 1 && text.front() == '0')) {
        return KelError{kKelErrorBadInput, KelFormat("\"%S\" in Slots is not a decimal number", text)};
    }
    if (*number > maximum) {
        return KelError{kKelErrorBadInput,
                        KelFormat("%S in Slots is above the maximum of this slot type, %gu", text, maximum)};
    }
    return {};
}

}  // namespace

KelContainer WeeklyWindow::ToContainer() const {
    KelContainer container;
    container.SetString("Slots", slots);
    container.SetInt32("SlotType", slotType);
    container.SetBool("UseUTCTime", useUtcTime);
    return container;
}

KelResult<WeeklyWindow> MakeWeeklyWindow(const KelString& slots, std::int32_t slotType, bool useUtcTime) {
    if (slotType < 1 || slotType > 8) {
        return KelError{kKelErrorBadInput, KelFormat("SlotType must be 1 to 8, not %d", slotType)};
    }
    KelVector<KelString> numbers;
    for (const KelString& piece : SplitText(slots, ' ')) {
        if (piece.empty()) continue;
        if (const KelStatus checked = CheckNumber(piece, MaxNumber(slotType)); !checked)
            return checked.Error();
        numbers.push_back(piece);
    }
    if (numbers.size() == 1) numbers.resize(WeeklyWindow::kHours, numbers.front());
    if (numbers.size() != WeeklyWindow::kHours) {
        return KelError{kKelErrorBadInput,
                        KelFormat("Slots must hold 168 numbers, one per hour of the week from Monday 00:00, "
                                  "or one number for all hours, not %lu",
                                  numbers.size())};
    }
    WeeklyWindow window;
    window.slotType = slotType;
    window.useUtcTime = useUtcTime;
    for (const KelString& number : numbers) {
        if (!window.slots.empty()) window.slots += ' ';
        window.slots += number;
    }
    return window;
}

WindowMoment MomentOf(const WeeklyWindow& window, std::int64_t now) {
    // A week, and the hours that clocks which are set back show twice.
    constexpr std::size_t kMostSteps = WeeklyWindow::kHours + 2;
    const KelVector<KelString> numbers = SplitText(window.slots, ' ');
    WindowMoment moment;
    moment.slot = WeekHour(now, window.useUtcTime);
    std::int64_t time = now;
    for (std::size_t step = 0; step < kMostSteps; ++step) {
        time = WeekHourEnd(time, window.useUtcTime);
        const std::size_t slot = WeekHour(time, window.useUtcTime);
        if (numbers.at(slot) == numbers.at(moment.slot)) continue;
        moment.nextChange = time;
        moment.nextSlot = slot;
        break;
    }
    return moment;
}

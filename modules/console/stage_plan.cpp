#include "modules/console/stage_plan.h"

#include <algorithm>

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::int32_t kWhole = 100;

}  // namespace

KelResult<KelVector<std::int32_t>> ReadStagePercents(const KelContainer& arguments) {
    KelVector<std::int32_t> percents;
    const std::uint32_t count = arguments.Has("Stage") ? arguments.Count("Stage") : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::int32_t percent = arguments.GetInt32("Stage", 0, i);
        if (percent <= (percents.empty() ? 0 : percents.back()) || percent > kWhole)
            return KelError{kKelErrorBadInput,
                            KelFormat("Stage \"%S\" is unusable: stages are rising percentages from 1 to 100",
                                      arguments.GetString("Stage", {}, i))};
        percents.push_back(percent);
    }
    if (!percents.empty() && percents.back() != kWhole)
        return KelError{kKelErrorBadInput, "The last stage must be 100 percent"};
    return percents;
}

KelVector<std::size_t> StageEnds(const KelVector<std::int32_t>& percents, std::size_t targets) {
    KelVector<std::size_t> ends;
    for (const std::int32_t percent : percents) {
        const std::size_t end = (targets * static_cast<std::size_t>(percent) + kWhole - 1) / kWhole;
        if (end > (ends.empty() ? 0 : ends.back())) ends.push_back(end);
    }
    if (ends.empty()) ends.push_back(targets);
    return ends;
}

std::int32_t StageOf(const KelVector<std::size_t>& ends, std::size_t index) {
    return static_cast<std::int32_t>(std::upper_bound(ends.begin(), ends.end(), index) - ends.begin()) + 1;
}

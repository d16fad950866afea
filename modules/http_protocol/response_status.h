#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "kelcore/metrics/metrics_page.h"

namespace kelhttp {

/// The reason phrase of a status that the server answers with; "Unknown" of any other.
std::string_view ReasonOfStatus(unsigned int status);

/// How often each status was answered. Any thread.
class ResponseCounters {
  public:
    void Count(unsigned int status);
    void Collect(KelMetricsPage& page) const;

  private:
    static constexpr std::size_t kStatuses = 23;
    std::array<KelCounter, kStatuses> counters_;
};

}  // namespace kelhttp

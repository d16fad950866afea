#pragma once

#include <initializer_list>
#include <map>
#include <string_view>
#include <utility>

#include "kel/types.h"
#include "kelcore/metrics/metric.h"

/// The samples of one moment, and their text in the Prometheus text exposition format, version 0.0.4. Samples
/// may come in any order: the text has those of a metric together, as the format demands. One thread at a
/// time.
///
/// Labels have few values, which are known beforehand: the name of a file or a device is none, since a
/// monitoring system keeps a series for each value.
class KelMetricsPage {
  public:
    using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    /// A sample of a counter or a gauge. Each set of labels once.
    void Add(const KelMetric& metric, Labels labels, double value);
    void Add(const KelMetric& metric, Labels labels, const KelCounter& counter) {
        Add(metric, labels, static_cast<double>(counter.Value()));
    }
    void Add(const KelMetric& metric, double value) { Add(metric, {}, value); }

    /// The samples of a summary, whose times are in seconds.
    void Add(const KelMetric& metric, Labels labels, const KelDurations& durations);

    /// All samples, ordered by the names of their metrics.
    KelString Text() const;

    /// The media type of the text.
    static constexpr const char* kMediaType = "text/plain; version=0.0.4; charset=utf-8";

  private:
    struct Family {
        KelString head;     ///< the lines HELP and TYPE
        KelString samples;  ///< in the order in which they came
    };
    Family& FamilyOf(const KelMetric& metric);

    std::map<std::string_view, Family> families_;  ///< by the names, which are literals
};

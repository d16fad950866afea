#include "kelcore/metrics/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace {

using Kind = KelMetric::Kind;
using testing::HasSubstr;

constexpr KelMetric kGauge(Kind::Gauge, "kel_test_bytes", "A \\ in the help\nof two lines.");
constexpr KelMetric kCounter(Kind::Counter, "kel_test_total", "Things counted.");
constexpr KelMetric kSummary(Kind::Summary, "kel_test_seconds", "Times.");

TEST(MetricsPageTest, ValuesAndLabelsAreWrittenAsTheFormatDemands) {
    const double infinity = std::numeric_limits<double>::infinity();
    for (const auto& [value, text] :
         std::vector<std::pair<double, std::string>>{{0, "0"},
                                                     {-3, "-3"},
                                                     {0.25, "0.25"},
                                                     {9007199254740991, "9007199254740991"},
                                                     {1e300, "1e+300"},
                                                     {std::nan(""), "NaN"},
                                                     {infinity, "+Inf"},
                                                     {-infinity, "-Inf"}}) {
        KelMetricsPage page;
        page.Add(kGauge, value);
        EXPECT_THAT(page.Text(), testing::EndsWith("\nkel_test_bytes " + text + "\n"));
    }
    for (const auto& [label, text] : std::vector<std::pair<std::string, std::string>>{
             {"plain", "plain"}, {"a\"b", "a\\\"b"}, {"a\\b", "a\\\\b"}, {"a\nb", "a\\nb"}, {"ü,}", "ü,}"}}) {
        KelMetricsPage page;
        page.Add(kGauge, {{"one", label}, {"two", ""}}, 1);
        EXPECT_THAT(page.Text(), HasSubstr("{one=\"" + text + "\",two=\"\"} 1\n"));
    }
}

TEST(MetricsPageTest, SamplesOfAMetricStandTogetherBelowItsHead) {
    KelCounter counter;
    counter.Add();
    counter.Add(41);
    KelDurations durations;
    durations.Add(std::chrono::milliseconds(1500));
    durations.Add(std::chrono::milliseconds(500));
    KelMetricsPage page;
    page.Add(kCounter, {{"x", "1"}}, counter);
    page.Add(kGauge, 7);
    page.Add(kSummary, {}, durations);
    page.Add(kCounter, {{"x", "2"}}, counter);
    EXPECT_EQ(page.Text(),
              "# HELP kel_test_bytes A \\\\ in the help\\nof two lines.\n# TYPE kel_test_bytes gauge\n"
              "kel_test_bytes 7\n"
              "# HELP kel_test_seconds Times.\n# TYPE kel_test_seconds summary\n"
              "kel_test_seconds_sum 2\nkel_test_seconds_count 2\n"
              "# HELP kel_test_total Things counted.\n# TYPE kel_test_total counter\n"
              "kel_test_total{x=\"1\"} 42\nkel_test_total{x=\"2\"} 42\n");
}

TEST(MetricsTest, CollectorThatFailsCostsNothingButItsOwnSamples) {
    KelMetricsRegister("Bad", [](KelMetricsPage& page) {
        page.Add(kGauge, 5);
        throw std::runtime_error("no");
    });
    KelMetricsRegister("Good", [](KelMetricsPage& page) { page.Add(kCounter, 6); });
    const KelString text = KelMetricsCollect();
    EXPECT_THAT(text, HasSubstr("kel_test_bytes 5\n"));
    EXPECT_THAT(text, HasSubstr("kel_test_total 6\n"));
    EXPECT_THAT(text, HasSubstr("kel_metrics_collect_seconds_count{module=\"Bad\"} 1\n"));
    KelMetricsUnregisterAll("Bad");
    EXPECT_THAT(KelMetricsCollect(), testing::Not(HasSubstr("kel_test_bytes")));
    KelMetricsUnregisterAll("Good");
}

}  // namespace

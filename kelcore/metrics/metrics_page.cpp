#include "kelcore/metrics/metrics_page.h"

#include <array>
#include <charconv>
#include <cmath>

namespace {

/// `text` as the format escapes it: "\" and line ends, in the value of a label the quotation mark as well.
KelString Escaped(std::string_view text, bool isLabel) {
    KelString escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        if (c == '\\' || (c == '"' && isLabel)) escaped += '\\';
        escaped += c;
    }
    return escaped;
}

/// Whole numbers, bytes above all, without an exponent.
KelString ValueText(double value) {
    constexpr double kExact = 9007199254740992;  // 2^53
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    if (std::trunc(value) == value && std::fabs(value) < kExact)
        return std::to_string(static_cast<std::int64_t>(value));
    std::array<char, 32> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), result.ptr};
}

KelString SampleLine(std::string_view name, std::string_view suffix, KelMetricsPage::Labels labels,
                     double value) {
    KelString line(name);
    line += suffix;
    char separator = '{';
    for (const auto& [label, text] : labels) {
        line += separator;
        line.append(label).append("=\"").append(Escaped(text, true)).append("\"");
        separator = ',';
    }
    if (labels.size() != 0) line += '}';
    return line + " " + ValueText(value) + "\n";
}

const char* KindText(KelMetric::Kind kind) {
    switch (kind) {
        case KelMetric::Kind::Counter:
            return "counter";
        case KelMetric::Kind::Gauge:
            return "gauge";
        case KelMetric::Kind::Summary:
            return "summary";
    }
    return "untyped";
}

}  // namespace

KelMetricsPage::Family& KelMetricsPage::FamilyOf(const KelMetric& metric) {
    const auto [family, isNew] = families_.try_emplace(metric.Name());
    if (isNew) {
        const KelString name(metric.Name());
        family->second.head = "# HELP " + name + " " + Escaped(metric.Help(), false) + "\n# TYPE " + name +
                              " " + KindText(metric.GetKind()) + "\n";
    }
    return family->second;
}

void KelMetricsPage::Add(const KelMetric& metric, Labels labels, double value) {
    FamilyOf(metric).samples += SampleLine(metric.Name(), "", labels, value);
}

void KelMetricsPage::Add(const KelMetric& metric, Labels labels, const KelDurations& durations) {
    FamilyOf(metric).samples +=
        SampleLine(metric.Name(), "_sum", labels, durations.Seconds()) +
        SampleLine(metric.Name(), "_count", labels, static_cast<double>(durations.Count()));
}

KelString KelMetricsPage::Text() const {
    KelString text;
    for (const auto& [name, family] : families_)
        text += family.head + family.samples;
    return text;
}

#include "kelcore/metrics/metrics.h"

#include <exception>
#include <map>
#include <mutex>
#include <utility>

#include "kelcore/agent.h"
#include "kelcore/failure_log.h"

namespace {

using Kind = KelMetric::Kind;

constexpr KelMetric kCollected(Kind::Summary, "kel_metrics_collect_seconds",
                               "Time that the modules took to give their metrics.");

struct Module {
    KelVector<KelMetricsCollector> collectors;
    KelDurations durations;
};

struct Modules {
    std::mutex mutex;  ///< guards the rest; held while the collectors run
    std::map<KelString, Module> byHandle;
};

Modules& Known() {
    static Modules modules;
    return modules;
}

KelFailureLog& Failures() {
    static KelFailureLog failures(CoreLog());
    return failures;
}

void Collect(const KelString& handle, Module& module, KelMetricsPage& page) {
    const KelStopwatch watch(module.durations);
    const KelString key = "metrics " + handle;
    try {
        for (const KelMetricsCollector& collector : module.collectors)
            collector(page);
        Failures().Succeeded(key, "The metrics of " + handle + " are complete again");
    } catch (const std::exception& failure) {
        Failures().Failed(KelDebugLevel::Warning, key,
                          "The metrics of " + handle + " are not complete: " + failure.what());
    }
}

}  // namespace

void KelMetricsRegister(const char* handle, KelMetricsCollector collector) {
    const std::lock_guard lock(Known().mutex);
    Known().byHandle[handle].collectors.push_back(std::move(collector));
}

void KelMetricsUnregisterAll(const char* handle) {
    const std::lock_guard lock(Known().mutex);
    Known().byHandle.erase(handle);
}

KelString KelMetricsCollect() {
    KelMetricsPage page;
    const std::lock_guard lock(Known().mutex);
    for (auto& [handle, module] : Known().byHandle)
        Collect(handle, module, page);
    for (const auto& [handle, module] : Known().byHandle)
        page.Add(kCollected, {{"module", handle}}, module.durations);
    return page.Text();
}

#include "agent/agent_metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>

#include "kel/debug.h"
#include "kelcore/action_db.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/metrics/transfer_counters.h"
#include "kelcore/version.h"

namespace {

using Kind = KelMetric::Kind;

constexpr KelMetric kBuild(Kind::Gauge, "kel_build_info", "The version of the program; the value is 1.");
constexpr KelMetric kLogLines(Kind::Counter, "kel_log_lines_total",
                              "Warnings and errors in the log; what is repeated is logged once an hour.");
constexpr KelMetric kCpu(Kind::Counter, "process_cpu_seconds_total", "Processor time used, in seconds.");
constexpr KelMetric kAgentStart(Kind::Gauge, "kel_start_time_seconds",
                                "Start of the agent, in seconds since the epoch.");
constexpr KelMetric kStart(Kind::Gauge, "process_start_time_seconds",
                           "Start of the process, in seconds since the epoch.");
constexpr KelMetric kResident(Kind::Gauge, "process_resident_memory_bytes", "Resident memory.");
constexpr KelMetric kVirtual(Kind::Gauge, "process_virtual_memory_bytes", "Virtual memory.");
constexpr KelMetric kOpenFiles(Kind::Gauge, "process_open_fds", "Open file descriptors.");
constexpr KelMetric kMostFiles(Kind::Gauge, "process_max_fds", "Limit of open file descriptors.");
constexpr KelMetric kThreads(Kind::Gauge, "process_threads", "Threads of the process.");

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// A field of /proc/self/stat by its number in proc(5); those before the fourth are not asked for.
double StatField(const std::string& line, int number) {
    // The second field, the name of the program in parentheses, may hold blanks and parentheses.
    std::istringstream rest(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::string field;
    for (int i = 3; i <= number; ++i)
        rest >> field;
    return field.empty() ? 0 : std::strtod(field.c_str(), nullptr);
}

void CollectMemory(KelMetricsPage& page) {
    constexpr int kThreadsField = 20, kVirtualField = 23, kResidentField = 24;
    std::ifstream file("/proc/self/stat");
    std::string line;
    if (!std::getline(file, line)) return;
    page.Add(kThreads, StatField(line, kThreadsField));
    page.Add(kVirtual, StatField(line, kVirtualField));
    page.Add(kResident, StatField(line, kResidentField) * static_cast<double>(sysconf(_SC_PAGESIZE)));
}

void CollectProcess(KelMetricsPage& page) {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0)
        page.Add(kCpu, Seconds(usage.ru_utime) + Seconds(usage.ru_stime));
    CollectMemory(page);
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    if (!error) page.Add(kOpenFiles, static_cast<double>(std::distance(open, {})));
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) page.Add(kMostFiles, static_cast<double>(limit.rlim_cur));
}

void CollectLog(KelMetricsPage& page) {
    for (const auto& [name, level] :
         {std::pair("warning", KelDebugLevel::Warning), std::pair("error", KelDebugLevel::Error)})
        page.Add(kLogLines, {{"level", name}}, static_cast<double>(KelDebugLineCount(level)));
}

}  // namespace

void RegisterAgentMetrics(const AgentFacts& facts) {
    KelMetricsRegister(kAgentHandle, [started = facts.started](KelMetricsPage& page) {
        page.Add(kBuild, {{"version", KelVersion()}}, 1);
        page.Add(kAgentStart, static_cast<double>(started));
        page.Add(kStart, static_cast<double>(started));
        CollectProcess(page);
        CollectLog(page);
    });
    KelMetricsRegister(kAgentHandle, &KelCollectTransfers);
    KelMetricsRegister(kAgentHandle, &ActionDbCollectMetrics);
}

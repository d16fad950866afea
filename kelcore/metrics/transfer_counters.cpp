#include "kelcore/metrics/transfer_counters.h"

#include <array>
#include <cstddef>

namespace {

constexpr KelMetric kBytes(KelMetric::Kind::Counter, "kel_transfer_bytes_total",
                           "Bytes of content moved, also by transfers that were not completed.");
constexpr KelMetric kFiles(KelMetric::Kind::Counter, "kel_transfer_files_total", "Files moved completely.");

constexpr std::array kDirections = {"down", "up"};
constexpr std::array kFlows = {"in", "out"};
constexpr std::array kTransports = {"http", "multicast", "local"};

using ByTransport = std::array<KelTransferCounters, kTransports.size()>;
std::array<std::array<ByTransport, kFlows.size()>, kDirections.size()> counters;

}  // namespace

KelTransferCounters& KelTransfers(KelDirection direction, KelFlow flow, KelTransport transport) {
    return counters[static_cast<std::size_t>(direction)][static_cast<std::size_t>(flow)]
                   [static_cast<std::size_t>(transport)];
}

void KelCollectTransfers(KelMetricsPage& page) {
    for (std::size_t direction = 0; direction < kDirections.size(); ++direction)
        for (std::size_t flow = 0; flow < kFlows.size(); ++flow)
            for (std::size_t transport = 0; transport < kTransports.size(); ++transport) {
                const KelMetricsPage::Labels labels = {{"direction", kDirections[direction]},
                                                       {"flow", kFlows[flow]},
                                                       {"transport", kTransports[transport]}};
                const KelTransferCounters& counted = counters[direction][flow][transport];
                // Multicast goes down only.
                if (std::string_view(kTransports[transport]) == "multicast" && direction != 0) continue;
                page.Add(kBytes, labels, counted.bytes);
                page.Add(kFiles, labels, counted.files);
            }
}

#pragma once

#include "kelcore/metrics/metric.h"
#include "kelcore/metrics/metrics_page.h"

/// Which way files go in the tree. A file that is fetched goes down, one that is put goes up.
enum class KelDirection : unsigned char { Down, Up };
/// Into this device or out of it.
enum class KelFlow : unsigned char { In, Out };
/// By what: a request of a device, datagrams to a group, or from and to the programs of this device.
enum class KelTransport : unsigned char { Http, Multicast, Local };

/// What was moved since the process was started. Bytes are those of content, also of transfers that were not
/// completed; files are complete ones.
struct KelTransferCounters {
    KelCounter bytes, files;

    void AddFile(std::uint64_t size) {
        bytes.Add(size);
        files.Add();
    }
};

/// The counters of one kind of transfers. Any thread.
KelTransferCounters& KelTransfers(KelDirection direction, KelFlow flow, KelTransport transport);

/// Adds all of them to the page.
void KelCollectTransfers(KelMetricsPage& page);

#pragma once

#include "kelcore/metrics/metrics_page.h"

/// Adds what is known of the store: its files by status and what they wait for, its threads, windows and
/// space. Reads the numbers that the databases keep and a row of each status, so that the cost does not
/// depend on the number of files. Nothing while the databases are closed. Calls local actions.
void FileStoreCollectMetrics(KelMetricsPage& page);

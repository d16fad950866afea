#pragma once

#include "kelcore/metrics/metrics_page.h"
#include "modules/console/console_database.h"

/// Adds the numbers of devices, publications and their targets to the page; nothing while the database is
/// closed. Those of targets are kept by the database, so that nothing reads them all.
void CollectConsoleMetrics(ConsoleDatabase& database, KelMetricsPage& page);

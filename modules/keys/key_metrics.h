#pragma once

#include "kelcore/metrics/metrics_page.h"
#include "kelcore/security.h"

/// Adds the end of the device's certificate and of the authority's to the page, as far as there are any.
void CollectKeyMetrics(const AgentSecurityKeys& keys, KelMetricsPage& page);

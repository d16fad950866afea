#pragma once

#include <functional>

#include "kel/types.h"
#include "kelcore/metrics/metrics_page.h"

// The metrics of the process. Each module adds a collector, which reads its counters and whatever else is
// known anyway at the moment of a question: there is no second bookkeeping.

/// Adds the samples of a module to the page. Takes a few milliseconds at most and holds no lock for longer,
/// however many files and devices there are. May be called from its registration to its removal, also before
/// the module is initialised and after it was cleaned up; never at the same time as another collector. Must
/// not register or remove collectors.
using KelMetricsCollector = std::function<void(KelMetricsPage&)>;

/// Any thread. `handle` names the module, as with actions.
void KelMetricsRegister(const char* handle, KelMetricsCollector collector);

/// Removes the collectors of a module; waits for one in progress.
void KelMetricsUnregisterAll(const char* handle);

/// The text of all metrics at this moment. A collector that throws is logged; its module's samples so far
/// stay. Any thread; one question is answered at a time.
KelString KelMetricsCollect();

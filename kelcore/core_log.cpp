#include "kelcore/core_log.h"

KelDebug& CoreLog() {
    static KelDebug log("KelCore", "Agent services");
    return log;
}

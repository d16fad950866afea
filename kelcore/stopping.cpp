#include "kelcore/stopping.h"

#include <atomic>

namespace {

std::atomic<bool> stopping = false;

}  // namespace

bool KelAgentIsStopping() {
    return stopping;
}

void KelAgentSetStopping(bool isStopping) {
    stopping = isStopping;
}

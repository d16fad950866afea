#include "modules/relay/replay_thread.h"

void ReplayThread::ThreadMain() {
    while (!CheckCancelled(false)) {
        step_();
        Pause(std::uint64_t{interval_} * 1000);
    }
}

#include "kel/periodic_thread.h"

#include <exception>
#include <utility>

KelPeriodicThread::KelPeriodicThread(const KelDebug& log, Begin begin, Step step, NextPause nextPause)
    : log_(log), begin_(begin), step_(std::move(step)), nextPause_(std::move(nextPause)) {}

KelPeriodicThread::~KelPeriodicThread() {
    Cancel(0, true);  // here, because the base class joins only after the functions are gone
}

void KelPeriodicThread::ThreadMain() {
    bool isWorkLeft = true;
    bool isPauseNext = begin_ == Begin::WithPause;
    while (!CheckCancelled(false)) {
        if (!isPauseNext) {
            isWorkLeft = RunStep();
        } else {
            const auto milliseconds = nextPause_(isWorkLeft);
            if (!milliseconds) return;
            Pause(*milliseconds);
        }
        isPauseNext = !isPauseNext;
    }
}

bool KelPeriodicThread::RunStep() {
    try {
        return step_();
    } catch (const std::exception& exception) {
        log_.Error("A work step failed (%s); the thread goes on and tries again after its wait.\n",
                   exception.what());
    } catch (...) {
        log_.Error(
            "A work step failed for an unknown reason; the thread goes on and tries again after its "
            "wait.\n");
    }
    return true;
}

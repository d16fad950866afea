#include "modules/identity/watcher.h"

#include <algorithm>

namespace {

constexpr std::uint32_t kWaitingSeconds = 2;

}  // namespace

void IdentityWatcher::ThreadMain() {
    bool isWaiting = true;
    while (!CheckCancelled(false)) {
        const std::uint32_t interval = interval_;
        Pause(std::uint64_t{isWaiting ? std::min(interval, kWaitingSeconds) : interval} * 1000);
        if (!CheckCancelled(false)) isWaiting = check_();
    }
}

#include "modules/identity/watcher.h"

void IdentityWatcher::ThreadMain() {
    while (!CheckCancelled(false)) {
        Pause(std::uint64_t{interval_} * 1000);
        if (!CheckCancelled(false)) check_();
    }
}

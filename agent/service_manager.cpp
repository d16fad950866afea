#include "agent/service_manager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace {

constexpr int kStepsToDeath = 4;

/// A line end would end the text and begin another message.
KelString OneLine(KelString text) {
    std::ranges::replace(text, '\n', ' ');
    return text;
}

}  // namespace

ServiceManager::ServiceManager(std::function<bool()> isAlive)
    : isAlive_(std::move(isAlive)), isWatched_(std::getenv("NOTIFY_SOCKET") != nullptr) {
    std::uint64_t microseconds = 0;
    if (isWatched_ && sd_watchdog_enabled(0, &microseconds) > 0)
        watchdog_ = std::chrono::microseconds(microseconds);
}

void ServiceManager::Ready(const KelString& status) {
    sd_notify(0, ("READY=1\nSTATUS=" + OneLine(status)).c_str());
}

void ServiceManager::Status(const KelString& status) {
    sd_notify(0, ("STATUS=" + OneLine(status)).c_str());
}

void ServiceManager::Stopping() {
    sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
}

std::chrono::seconds ServiceManager::Pause(std::chrono::seconds longest) const {
    if (watchdog_.count() == 0) return longest;
    const auto step = std::chrono::duration_cast<std::chrono::seconds>(watchdog_ / kStepsToDeath);
    return std::clamp(step, std::chrono::seconds(1), longest);
}

void ServiceManager::Step() {
    if (watchdog_.count() != 0 && isAlive_()) sd_notify(0, "WATCHDOG=1");
}

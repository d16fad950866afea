#include "kelcore/keys/transition.h"

#include <algorithm>

#include "kelcore/keys/key_ring.h"
#include "kelcore/security.h"

void KelTransition::SetOn(bool isOn) {
    const KelLock lock(mutex_);
    isOn_ = isOn;
    if (isOn) return;
    withKeys_.clear();
    callers_.clear();
}

bool KelTransition::AcceptsPassword() const {
    const AgentSecurityKeys keys = AgentSecurityGetKeys();
    if (!keys) return true;
    return isOn_ && (!keys->IsEnrolled() || keys->Get().device.role != KelDeviceRole::Client);
}

bool KelTransition::CallsWithPassword() const {
    return isOn_;
}

void KelTransition::NoteKeys(const KelString& device) {
    if (!isOn_ || device.empty()) return;
    const KelLock lock(mutex_);
    if (withKeys_.size() >= kMostPeers) withKeys_.clear();
    withKeys_.insert(device);
}

bool KelTransition::HasKeys(const KelString& device) const {
    const KelLock lock(mutex_);
    return withKeys_.contains(device);
}

void KelTransition::NoteCaller(IpAddress address, bool hadPassword, std::int64_t now) {
    if (!isOn_) return;
    const KelLock lock(mutex_);
    if (!hadPassword) {
        callers_.erase(address.Value());
        return;
    }
    if (callers_.size() >= kMostPeers && !callers_.contains(address.Value())) callers_.clear();
    callers_[address.Value()] = now;
}

KelVector<std::pair<IpAddress, std::int64_t>> KelTransition::PasswordCallers() const {
    KelVector<std::pair<IpAddress, std::int64_t>> callers;
    const KelLock lock(mutex_);
    for (const auto& [address, time] : callers_)
        callers.emplace_back(IpAddress(address), time);
    std::ranges::sort(callers, {}, [](const auto& caller) { return caller.first.Value(); });
    return callers;
}

KelTransition& Transition() {
    static KelTransition transition;
    return transition;
}

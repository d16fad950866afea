#include "kelcore/tree_passwords.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

void KelTreePasswords::Set(KelPasswordPair passwords) {
    const KelLock lock(mutex_);
    if (passwords == passwords_) return;
    passwords_ = std::move(passwords);
    renewed_.clear();
    formerCallers_.clear();
    areTwo_ = !passwords_.former.empty();
    ++id_;
}

KelPasswordPair KelTreePasswords::Get() const {
    const KelLock lock(mutex_);
    return passwords_;
}

bool KelTreePasswords::Has(std::string_view password) const {
    const KelLock lock(mutex_);
    return !password.empty() && (password == passwords_.current || password == passwords_.former);
}

bool KelTreePasswords::IsFormer(std::string_view password) const {
    if (!areTwo_) return false;
    const KelLock lock(mutex_);
    return password == passwords_.former;
}

KelVector<KelString> KelTreePasswords::OrderFor(const KelString& place) const {
    const KelLock lock(mutex_);
    if (passwords_.former.empty()) return {passwords_.current};
    if (renewed_.contains(place)) return {passwords_.current, passwords_.former};
    return {passwords_.former, passwords_.current};
}

void KelTreePasswords::NoteTaken(const KelString& place, const KelString& password, bool hasBoth) {
    if (!areTwo_) return;
    const KelLock lock(mutex_);
    if (renewed_.size() >= kMostPeers) renewed_.clear();
    if (hasBoth || password == passwords_.current)
        renewed_.insert(place);
    else
        renewed_.erase(place);
}

void KelTreePasswords::NoteCaller(IpAddress address, bool hasOnlyFormer, std::int64_t now) {
    if (!areTwo_) return;
    const KelLock lock(mutex_);
    if (!hasOnlyFormer) {
        formerCallers_.erase(address.Value());
        return;
    }
    if (formerCallers_.size() >= kMostPeers && !formerCallers_.contains(address.Value()))
        formerCallers_.clear();
    formerCallers_[address.Value()] = now;
}

KelVector<std::pair<IpAddress, std::int64_t>> KelTreePasswords::FormerCallers() const {
    KelVector<std::pair<IpAddress, std::int64_t>> callers;
    const KelLock lock(mutex_);
    for (const auto& [address, time] : formerCallers_)
        callers.emplace_back(IpAddress(address), time);
    std::ranges::sort(callers, {}, [](const auto& caller) { return caller.first.Value(); });
    return callers;
}

std::optional<std::int64_t> ParsePasswordEnd(const KelString& text) {
    std::tm parts{};
    const char* const end = strptime(text.c_str(), "%Y-%m-%d", &parts);
    if (end == nullptr || *end != 0) return std::nullopt;
    return timegm(&parts);
}

KelString PasswordEndText(std::int64_t end) {
    const std::time_t seconds = end;
    std::tm parts{};
    std::array<char, 32> text{};
    gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

KelTreePasswords& TreePasswords() {
    static KelTreePasswords passwords;
    return passwords;
}
